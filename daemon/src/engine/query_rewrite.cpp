#include "query_rewrite.h"

#include <algorithm>
#include <cstring>

#include <xapian.h>

#include "word_forms.h"

namespace zarnd {

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool IsWordByte(char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    return (u >= '0' && u <= '9') || (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || u == '_' || u >= 0x80;
}

bool IsOperator(const std::string &token) {
    static const char *const kOperators[] = {"AND", "OR", "NOT", "XOR", "NEAR", "ADJ"};
    for (const char *op : kOperators) {
        const size_t n = std::strlen(op);
        if (token.compare(0, n, op) == 0 && (token.size() == n || ((op[0] == 'N' || op[0] == 'A') && token[n] == '/')))
            return true;
    }
    return false;
}

bool HasCjk(const std::string &text) {
    size_t length = 0;
    for (size_t at = 0; at < text.size(); at += length)
        if (IsCjkAt(text, at, &length)) return true;
    return false;
}

bool AllWordBytes(const std::string &text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), IsWordByte);
}

std::string Normalised(const std::string &word) { return Xapian::Unicode::tolower(FoldAccents(word)); }


class Rewriter {
public:
    Rewriter(const std::string &in, const QueryFields &fields) : in_(in), fields_(fields) {}

    RewrittenQuery Run() {
        for (size_t at = 0; at < in_.size();) {
            if (IsSpace(in_[at])) {
                out_ += in_[at++];
            } else if (in_[at] == '"') {
                at = Phrase(at, false);
            } else {
                size_t end = at;
                while (end < in_.size() && !IsSpace(in_[end]) && in_[end] != '"') ++end;
                at = Token(at, end);
            }
        }
        // The word being typed: the last one, when nothing follows it.
        RewrittenQuery query;
        if (partial_begin_ != std::string::npos && !in_.empty() && !IsSpace(in_.back()) && in_.back() != '"') {
            out_.insert(partial_begin_, std::string(kPartialField) + ":");
            query.typing = partial_weighed_;
        }
        query.text = std::move(out_);
        query.words = std::move(words_);
        return query;
    }

private:
    // The phrase opening at in_[at]; returns where it ends.
    size_t Phrase(size_t at, bool raw) {
        partial_begin_ = std::string::npos;
        const size_t close = in_.find('"', at + 1);
        const size_t end = close == std::string::npos ? in_.size() : close;
        const std::string inside = in_.substr(at + 1, end - at - 1);
        out_ += '"';
        if (raw) {
            out_ += inside;
        } else {
            // Each CJK character a word, as the engine's n-gram splitting
            // makes a phrase of single characters.
            const std::string folded = FoldAccents(inside);
            size_t length = 0;
            for (size_t k = 0; k < folded.size(); k += length) {
                if (IsCjkAt(folded, k, &length)) {
                    out_ += ' ';
                    out_.append(folded, k, length);
                    out_ += ' ';
                } else {
                    out_.append(folded, k, length);
                }
            }
        }
        if (close == std::string::npos) return in_.size();
        out_ += '"';
        return close + 1;
    }

    static bool Listed(const std::vector<std::string> &names, const std::string &name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    }

    // in_[begin, end): no space and no quote inside.
    size_t Token(size_t begin, size_t end) {
        partial_begin_ = std::string::npos;
        const std::string token = in_.substr(begin, end - begin);
        if (IsOperator(token)) {
            out_ += token;
            return end;
        }
        size_t lead = 0;
        while (lead < token.size() && (token[lead] == '+' || token[lead] == '-' || token[lead] == '(')) ++lead;
        const size_t colon = token.find(':', lead);
        const std::string name = colon == std::string::npos ? std::string() : token.substr(lead, colon - lead);
        if (!name.empty() && Listed(fields_.raw, name)) {
            out_ += token;
            // field:"value with spaces" is exact too.
            if (colon + 1 == token.size() && end < in_.size() && in_[end] == '"') return Phrase(end, true);
            return end;
        }
        if (!name.empty() && Listed(fields_.text, name)) {
            out_.append(token, 0, lead);
            FieldValue(name, token.substr(colon + 1));
            return end;
        }
        out_.append(token, 0, lead);
        Words(token.substr(lead), true);
        return end;
    }

    void FieldValue(const std::string &name, const std::string &value) {
        size_t word_end = 0;
        while (word_end < value.size() && IsWordByte(value[word_end])) ++word_end;
        const std::string word = value.substr(0, word_end), rest = value.substr(word_end);
        if (!word.empty() && HasCjk(word)) {
            out_ += std::string(kCjkField) + name + ":" + word + " ";
        } else if (!word.empty() && rest.find_first_not_of(')') == std::string::npos) {
            const std::string normal = Normalised(word);
            out_ += name + ":" + (AllWordBytes(normal) ? "\"" + normal + "\"" : normal);
        } else {
            out_ += name + ":";
            Words(word, false);
        }
        Words(rest, false);
    }

    // Words and the signs between them, as the user typed them but for
    // the words' accents and case.
    void Words(const std::string &text, bool may_be_partial) {
        for (size_t at = 0; at < text.size();) {
            size_t end = at;
            if (!IsWordByte(text[at])) {
                while (end < text.size() && !IsWordByte(text[end])) ++end;
                out_.append(text, at, end - at);
                at = end;
                continue;
            }
            while (end < text.size() && IsWordByte(text[end])) ++end;
            const std::string word = text.substr(at, end - at);
            if (HasCjk(word)) {
                if (!out_.empty() && !IsSpace(out_.back()) && std::strchr("(+-", out_.back()) == nullptr) out_ += ' ';
                out_ += std::string(kCjkField) + ":" + word + " ";
            } else {
                const std::string folded = FoldAccents(word);
                const std::string normal = Xapian::Unicode::tolower(folded);
                // A word made of words ("budgetReport", "team_offsite")
                // also matches them as a phrase, as file names are indexed;
                // not after a sign, which applies to one term only, nor
                // before a wildcard, which must stay on the word.
                const bool wildcard = end < text.size() && text[end] == '*';
                const std::string parts =
                    may_be_partial && !wildcard && (out_.empty() || std::strchr("+-", out_.back()) == nullptr)
                        ? NameParts(folded)
                        : "";
                if (!parts.empty()) out_ += '(';
                // Only a word that is the whole token (but for closing
                // brackets) is typed as a prefix.
                const bool alone = may_be_partial && at == 0 && text.find_first_not_of(')', end) == std::string::npos;
                const bool weighed = may_be_partial && AllWordBytes(normal) && (out_.empty() || out_.back() != '-');
                if (alone && AllWordBytes(normal)) {
                    partial_begin_ = out_.size();
                    partial_weighed_ = weighed && parts.empty();
                }
                out_ += normal;
                if (!parts.empty()) out_ += " OR \"" + Xapian::Unicode::tolower(parts) + "\")";
                if (weighed) Weigh(Xapian::Unicode::tolower(parts.empty() ? folded : folded + " " + parts));
            }
            at = end;
        }
    }

    // The words of `text`, split at spaces, for the weights.
    void Weigh(const std::string &text) {
        for (size_t at = 0; at < text.size();) {
            const size_t space = std::min(text.find(' ', at), text.size());
            if (space > at) words_.push_back(text.substr(at, space - at));
            at = space + 1;
        }
    }

    const std::string &in_;
    const QueryFields &fields_;
    std::string out_;
    std::vector<std::string> words_;
    size_t partial_begin_ = std::string::npos;
    bool partial_weighed_ = false;  // the word being typed is the last of words_
};

}  // namespace

RewrittenQuery RewriteQuery(const std::string &text, const QueryFields &fields) { return Rewriter(text, fields).Run(); }

}  // namespace zarnd
