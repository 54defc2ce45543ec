#include "extract/wire.h"

#include <cstring>

#include "text_content.h"
#include "utf8.h"
#include "varint.h"

namespace zarnd {
namespace extract {

namespace {

constexpr char kRequestTag = 'Q';
constexpr char kReplyTag = 'R';
constexpr char kVersion = 1;

void PutText(std::string *out, const std::string &text) {
    PutVarint(out, text.size());
    *out += text;
}

// The reading side of a payload: every step checks what is left.
class Reader {
public:
    explicit Reader(const std::string &data) : data_(data) {}

    bool Byte(unsigned char *value) {
        if (at_ >= data_.size()) return false;
        *value = static_cast<unsigned char>(data_[at_++]);
        return true;
    }
    // Only the shortest form, as PutVarint writes it (no padded or
    // overflowing groups).
    bool Number(uint64_t *value) {
        const size_t start = at_;
        if (!GetVarint(data_, &at_, value)) return false;
        std::string canonical;
        PutVarint(&canonical, *value);
        return data_.compare(start, at_ - start, canonical) == 0;
    }
    // A length-prefixed text of at most `cap` bytes, valid UTF-8.
    bool Text(std::string *text, size_t cap) {
        uint64_t size = 0;
        if (!Number(&size) || size > cap || size > data_.size() - at_) return false;
        text->assign(data_, at_, size);
        at_ += size;
        return Utf8Valid(*text);
    }
    bool Double(double *value) {
        if (data_.size() - at_ < sizeof *value) return false;
        std::memcpy(value, data_.data() + at_, sizeof *value);
        at_ += sizeof *value;
        return *value == *value;  // no NaN: JSON cannot carry it
    }
    bool AtEnd() const { return at_ == data_.size(); }

private:
    static bool Utf8Valid(const std::string &text) {
        for (size_t i = 0; i < text.size();) {
            const size_t n = Utf8SequenceLength(text.data() + i, text.size() - i);
            if (n == 0) return false;
            i += n;
        }
        return true;
    }

    const std::string &data_;
    size_t at_ = 0;
};

bool DecodeField(Reader *in, Field *field) {
    unsigned char type = 0;
    if (!in->Text(&field->key, 64) || !in->Byte(&type)) return false;
    const ExtractedField *known = FindExtractedField(field->key);
    if (known == nullptr || static_cast<unsigned char>(known->type) != type) return false;
    field->type = known->type;
    uint64_t number = 0;
    switch (field->type) {
    case FieldType::kString:
        return in->Text(&field->text, kMaxFieldBytes);
    case FieldType::kInt:
        if (!in->Number(&number)) return false;
        field->number = static_cast<int64_t>(number >> 1) ^ -static_cast<int64_t>(number & 1);
        return true;
    case FieldType::kBool:
        if (!in->Number(&number) || number > 1) return false;
        field->number = static_cast<int64_t>(number);
        return true;
    case FieldType::kDouble:
        return in->Double(&field->real);
    }
    return false;
}

}  // namespace

bool FrameLength(const unsigned char header[kFrameHeaderBytes], size_t *length) {
    const uint32_t n = (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) | (uint32_t{header[2]} << 8) | header[3];
    *length = n;
    return n <= kMaxFrameBytes;
}

std::string Frame(const std::string &payload) {
    const uint32_t n = static_cast<uint32_t>(payload.size());
    std::string frame = {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                         static_cast<char>(n)};
    return frame + payload;
}

std::string EncodeRequest(const Request &request) {
    std::string out = {kRequestTag, kVersion};
    PutVarint(&out, request.size);
    PutText(&out, request.extension);
    return out;
}

bool DecodeRequest(const std::string &payload, Request *request) {
    Reader in(payload);
    unsigned char tag = 0, version = 0;
    return in.Byte(&tag) && tag == kRequestTag && in.Byte(&version) && version == kVersion &&
           in.Number(&request->size) && in.Text(&request->extension, kMaxExtensionBytes) && in.AtEnd();
}

std::string EncodeReply(const Reply &reply) {
    std::string out = {kReplyTag, kVersion, static_cast<char>(reply.status)};
    PutVarint(&out, reply.cpu_ms);
    PutText(&out, reply.reason);
    PutText(&out, reply.kind);
    PutText(&out, reply.text);
    PutVarint(&out, reply.fields.size());
    for (const Field &field : reply.fields) {
        PutText(&out, field.key);
        out.push_back(static_cast<char>(field.type));
        switch (field.type) {
        case FieldType::kString:
            PutText(&out, field.text);
            break;
        case FieldType::kInt:
            PutVarint(&out, (static_cast<uint64_t>(field.number) << 1) ^ static_cast<uint64_t>(field.number >> 63));
            break;
        case FieldType::kBool:
            PutVarint(&out, field.number != 0);
            break;
        case FieldType::kDouble:
            out.append(reinterpret_cast<const char *>(&field.real), sizeof field.real);
            break;
        }
    }
    return out;
}

bool DecodeReply(const std::string &payload, Reply *reply) {
    Reader in(payload);
    unsigned char tag = 0, version = 0, status = 0;
    uint64_t count = 0;
    if (!in.Byte(&tag) || tag != kReplyTag || !in.Byte(&version) || version != kVersion || !in.Byte(&status) ||
        status > static_cast<unsigned char>(Status::kVideo) || !in.Number(&reply->cpu_ms) ||
        !in.Text(&reply->reason, kMaxReasonBytes) || !in.Text(&reply->kind, kMaxKindBytes) ||
        !in.Text(&reply->text, kMaxTextBytes) || !in.Number(&count) || count > kMaxFields)
        return false;
    reply->status = static_cast<Status>(status);
    reply->fields.assign(count, Field());
    for (Field &field : reply->fields)
        if (!DecodeField(&in, &field)) return false;
    return in.AtEnd();
}

}  // namespace extract
}  // namespace zarnd
