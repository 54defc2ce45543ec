#include "report.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>

#include <json/writer.h>

namespace zarnbench {
namespace {

std::string CpuModel() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line)) {
        if (line.compare(0, 10, "model name") != 0) continue;
        const size_t colon = line.find(':');
        if (colon != std::string::npos) return line.substr(line.find_first_not_of(' ', colon + 1));
    }
    return "unknown";
}

Json::Value Machine() {
    Json::Value machine(Json::objectValue);
    char date[64];
    const time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", &utc);
    machine["date"] = date;
    machine["nproc"] = static_cast<Json::Int>(sysconf(_SC_NPROCESSORS_ONLN));
    machine["cpu"] = CpuModel();
    struct utsname name;
    if (uname(&name) == 0) machine["kernel"] = std::string(name.sysname) + " " + name.release;
    return machine;
}

std::string WithSeparators(long long value) {
    std::string digits = std::to_string(value < 0 ? -value : value);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) digits.insert(at, ",");
    return value < 0 ? "-" + digits : digits;
}

}  // namespace

std::string FormatNumber(const Json::Value &value) {
    if (value.isString()) return value.asString();
    if (value.isBool()) return value.asBool() ? "yes" : "no";
    if (value.isIntegral()) return WithSeparators(value.asLargestInt());
    if (value.isDouble()) {
        const double x = value.asDouble();
        if (std::fabs(x) >= 1000) return WithSeparators(std::llround(x));
        char text[32];
        std::snprintf(text, sizeof text, std::fabs(x) >= 100 ? "%.0f" : std::fabs(x) >= 10 ? "%.1f" : "%.3g", x);
        return text;
    }
    return "-";
}

std::string Fixed(double value, const char *format) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

void Report::Section(const std::string &id, const std::string &title, const std::string &method,
                     std::vector<std::string> columns) {
    current_ = Json::Value(Json::objectValue);
    current_["id"] = id;
    current_["title"] = title;
    current_["method"] = method;
    current_["rows"] = Json::Value(Json::arrayValue);
    current_["notes"] = Json::Value(Json::arrayValue);
    current_["targets"] = Json::Value(Json::arrayValue);
    columns_ = std::move(columns);
    std::printf("\n== %s\n%s\n", title.c_str(), method.c_str());
    std::fflush(stdout);
}

void Report::Row(const Json::Value &row) { current_["rows"].append(row); }

void Report::Note(const std::string &text) { current_["notes"].append(text); }

void Report::Target(const std::string &what, const std::string &measured, bool met) {
    Json::Value target(Json::objectValue);
    target["target"] = what;
    target["measured"] = measured;
    target["met"] = met;
    current_["targets"].append(target);
}

void Report::Skipped(const std::string &reason) { current_["skipped"] = reason; }

void Report::EndSection() {
    const Json::Value &rows = current_["rows"];
    std::vector<size_t> width;
    for (const std::string &column : columns_) width.push_back(column.size());
    for (const Json::Value &row : rows)
        for (size_t c = 0; c < columns_.size(); ++c)
            width[c] = std::max(width[c], FormatNumber(row[columns_[c]]).size());
    auto print_line = [&](auto cell) {
        std::string line = "|";
        for (size_t c = 0; c < columns_.size(); ++c) {
            std::string text = cell(c);
            line += " " + text + std::string(width[c] - text.size(), ' ') + " |";
        }
        std::printf("%s\n", line.c_str());
    };
    if (!rows.empty()) {
        print_line([&](size_t c) { return columns_[c]; });
        print_line([&](size_t c) { return std::string(width[c], '-'); });
        for (const Json::Value &row : rows)
            print_line([&](size_t c) { return FormatNumber(row[columns_[c]]); });
    }
    if (current_.isMember("skipped")) std::printf("NOT RUN: %s\n", current_["skipped"].asCString());
    for (const Json::Value &note : current_["notes"]) std::printf("note: %s\n", note.asCString());
    for (const Json::Value &target : current_["targets"])
        std::printf("target %s: %s -> %s\n", target["met"].asBool() ? "MET   " : "MISSED",
                    target["target"].asCString(), target["measured"].asCString());
    std::fflush(stdout);
    sections_.append(current_);
    current_ = Json::Value();
}

Json::Value Report::ToJson() const {
    Json::Value all(Json::objectValue);
    all["machine"] = Machine();
    all["sections"] = sections_;
    return all;
}

bool Report::WriteJson(const std::string &path) const {
    std::ofstream out(path);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    out << Json::writeString(writer, ToJson()) << "\n";
    return static_cast<bool>(out);
}

bool Report::AllTargetsMet() const {
    for (const Json::Value &section : sections_)
        for (const Json::Value &target : section["targets"])
            if (!target["met"].asBool()) return false;
    return true;
}

}  // namespace zarnbench
