// The benchmark report: one table per measure, each with the method that
// produced it, printed as text and kept for the JSON results file.
#ifndef ZARN_BENCH_REPORT_H
#define ZARN_BENCH_REPORT_H

#include <string>
#include <vector>

#include <json/value.h>

namespace zarnbench {

class Report {
public:
    // Starts a table.  `columns` name the members of the rows, in print order.
    void Section(const std::string &id, const std::string &title, const std::string &method,
                 std::vector<std::string> columns);
    void Row(const Json::Value &row);
    void Note(const std::string &text);
    // A target and whether this run met it.
    void Target(const std::string &what, const std::string &measured, bool met);
    // Marks the current measure as not run, with the reason.
    void Skipped(const std::string &reason);
    // Prints the current table.
    void EndSection();

    // Machine, date, every table and every target.
    Json::Value ToJson() const;
    bool WriteJson(const std::string &path) const;
    bool AllTargetsMet() const;

private:
    Json::Value sections_{Json::arrayValue};
    Json::Value current_;
    std::vector<std::string> columns_;
};

// "1,234,567" for integers, three significant decimals for ratios and the like.
std::string FormatNumber(const Json::Value &value);

// `value` printed with a printf format such as "%.2f".
std::string Fixed(double value, const char *format);

}  // namespace zarnbench

#endif  // ZARN_BENCH_REPORT_H
