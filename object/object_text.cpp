#include <algorithm>
#include <charconv>
#include <optional>

#include "object/object.h"
#include "object/object_field.h"
#include "proto/key_role.h"
#include "text/number.h"

namespace object
{

namespace
{

constexpr size_t MAC_LENGTH = 6;
constexpr std::string_view NOTHING = "{}";
constexpr std::string_view HEX_DIGITS = "0123456789abcdef";

bool is_mac(const ProtobufCFieldDescriptor &field);
void put_fields(std::string *out, const std::string &prefix, const ProtobufCMessage &message);

class Reader
{
public:
    Reader(std::string_view text, TextError *error) : text_(text), error_(error)
    {
    }

    // Reads all pairs into an empty message.
    bool read(ProtobufCMessage &message, std::vector<uint32_t> *fields_given);

private:
    struct Target {
        ProtobufCMessage &message;
        const ProtobufCFieldDescriptor *field; // nullptr: there is none
    };

    Target read_path(ProtobufCMessage &message, std::vector<uint32_t> *fields_given);
    bool read_pair(ProtobufCMessage &message, std::vector<uint32_t> *fields_given);
    bool read_value(const Target &target);
    bool read_number(const Target &target);
    bool read_mac(const Target &target);
    bool read_bytes(const Target &target);
    bool read_text(const Target &target);
    bool read_quoted(std::string *value);
    bool read_escape(std::string *value);
    bool note_given(size_t start, std::string_view path);
    void skip_space();
    std::string_view take_name();
    std::string_view take_word();
    bool at_end() const
    {
        return at_ == text_.size();
    }
    bool fail(size_t at, std::string expected);

    std::string_view text_;
    size_t at_ = 0;
    TextError *error_;
    std::vector<std::string_view> given_; // paths of the pairs read so far
};

} // namespace

std::string to_text(const ProtobufCMessage &message)
{
    std::string result;
    put_fields(&result, "", message);
    return result;
}

Message from_text(const Kind &kind, std::string_view text, std::vector<uint32_t> *fields_given,
                  TextError *error)
{
    std::vector<uint32_t> ignored;
    if (fields_given == nullptr)
        fields_given = &ignored;
    fields_given->clear();
    Message message = new_message(kind_descriptor(kind));
    if (!Reader(text, error).read(*message, fields_given))
        message.reset();
    return message;
}

namespace
{

// --- Both directions

bool is_mac(const ProtobufCFieldDescriptor &field)
{
    uint32_t role = proto_key_role(&field);
    return role == PROTO_KEY_ROLE_MAC || role == PROTO_KEY_ROLE_MAC_FIELD;
}

bool is_letter_or_digit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// What may stand outside quotes.
bool is_bare(char c)
{
    return is_letter_or_digit(c) || std::string_view("_-./:@+").find(c) != std::string_view::npos;
}

bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// --- Writing

void put_hex(std::string *out, char byte)
{
    auto value = static_cast<unsigned char>(byte);
    *out += HEX_DIGITS[value >> 4];
    *out += HEX_DIGITS[value & 0xf];
}

std::string hex_text(std::string_view bytes)
{
    std::string out = "0x";
    for (char byte : bytes)
        put_hex(&out, byte);
    return out;
}

std::string mac_text(std::string_view bytes)
{
    if (bytes.empty())
        return std::string(NOTHING);
    if (bytes.size() != MAC_LENGTH)
        return hex_text(bytes);
    std::string out;
    for (char byte : bytes) {
        if (!out.empty())
            out += ':';
        put_hex(&out, byte);
    }
    return out;
}

// The letter behind the backslash for each character that has one.
constexpr std::pair<char, char> ESCAPES[] = {
    {'"', '"'}, {'\\', '\\'}, {'\n', 'n'}, {'\t', 't'}, {'\r', 'r'}};

void put_quoted(std::string *out, char c)
{
    const auto *escape = std::ranges::find(ESCAPES, c, &std::pair<char, char>::first);
    if (escape != std::end(ESCAPES)) {
        *out += '\\';
        *out += escape->second;
    } else if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') {
        *out += "\\x";
        put_hex(out, c);
    } else {
        *out += c;
    }
}

std::string string_text(std::string_view text)
{
    if (!text.empty() && std::ranges::all_of(text, is_bare))
        return std::string(text);
    std::string out = "\"";
    for (char c : text)
        put_quoted(&out, c);
    return out + '"';
}

// A field's value as one word; none if it is left out.
std::optional<std::string> value_text(const ProtobufCMessage &message,
                                      const ProtobufCFieldDescriptor &field)
{
    bool shown = proto_key_role(&field) == PROTO_KEY_ROLE_FIELD;
    switch (field.type) {
    case PROTOBUF_C_TYPE_STRING: {
        auto text = text_of(message, field);
        return shown || !text.empty() ? std::optional(string_text(text)) : std::nullopt;
    }
    case PROTOBUF_C_TYPE_BYTES: {
        auto bytes = bytes_of(message, field);
        return !bytes.empty() ? std::optional(hex_text(bytes)) : std::nullopt;
    }
    case PROTOBUF_C_TYPE_MESSAGE:
        return mac_text(bytes_of(*member<ProtobufCMessage *>(message, field), mac_data(field)));
    default: {
        auto number = member<uint32_t>(message, field);
        return shown || number != 0 ? std::optional(std::to_string(number)) : std::nullopt;
    }
    }
}

void put_pair(std::string *out, const std::string &path, std::string_view value)
{
    if (!out->empty())
        *out += ' ';
    out->append(path).append("=").append(value);
}

void put_sub_message(std::string *out, const std::string &path, const ProtobufCMessage &message)
{
    size_t before = out->size();
    put_fields(out, path + '.', message);
    if (out->size() == before)
        put_pair(out, path, NOTHING);
}

void put_fields(std::string *out, const std::string &prefix, const ProtobufCMessage &message)
{
    for (const auto &field : fields_of(*message.descriptor)) {
        const std::string path = prefix + field.name;
        bool is_sub = field.type == PROTOBUF_C_TYPE_MESSAGE;
        const auto *sub = is_sub ? member<ProtobufCMessage *>(message, field) : nullptr;
        if (is_sub && sub == nullptr)
            continue;
        if (is_sub && !is_mac(field))
            put_sub_message(out, path, *sub);
        else if (auto value = value_text(message, field))
            put_pair(out, path, *value);
    }
}

// --- Reading

std::string field_expected(const ProtobufCMessageDescriptor &type)
{
    std::string out = "a field of " + std::string(type.name) + ":";
    for (unsigned i = 0; i < type.n_fields; i++)
        out.append(i == 0 ? " " : ", ").append(type.fields[type.fields_sorted_by_name[i]].name);
    return out;
}

std::optional<unsigned> hex_digit(char c)
{
    unsigned value = 0;
    auto [end, error] = std::from_chars(&c, &c + 1, value, 16);
    return error == std::errc() ? std::optional(value) : std::nullopt;
}

// Pairs of hex digits with `separator`, if not 0, between them.
std::optional<std::string> parse_hex(std::string_view word, char separator)
{
    const size_t step = separator == 0 ? 2 : 3;
    if ((word.size() + step - 2) % step != 0)
        return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i < word.size(); i += step) {
        auto high = hex_digit(word[i]);
        auto low = hex_digit(word[i + 1]);
        bool separated = step == 2 || i + 2 >= word.size() || word[i + 2] == separator;
        if (!high || !low || !separated)
            return std::nullopt;
        bytes += static_cast<char>(*high << 4 | *low);
    }
    return bytes;
}

std::optional<std::string> parse_bytes(std::string_view word)
{
    if (word.size() <= 2 || !word.starts_with("0x"))
        return std::nullopt;
    return parse_hex(word.substr(2), 0);
}

std::optional<std::string> parse_mac(std::string_view word)
{
    if (word == NOTHING)
        return std::string();
    if (word.starts_with("0x"))
        return parse_bytes(word);
    auto bytes = parse_hex(word, ':');
    return bytes && bytes->size() == MAC_LENGTH ? bytes : std::nullopt;
}

std::optional<uint32_t> parse_number(std::string_view word)
{
    const auto number = text::number_read(word);
    if (!number || *number > UINT32_MAX)
        return std::nullopt;
    return static_cast<uint32_t>(*number);
}

bool Reader::read(ProtobufCMessage &message, std::vector<uint32_t> *fields_given)
{
    for (skip_space(); !at_end(); skip_space()) {
        if (!read_pair(message, fields_given))
            return false;
    }
    return true;
}

bool Reader::read_pair(ProtobufCMessage &message, std::vector<uint32_t> *fields_given)
{
    const size_t start = at_;
    Target target = read_path(message, fields_given);
    if (target.field == nullptr || !note_given(start, text_.substr(start, at_ - start)))
        return false;
    if (at_end() || text_[at_] != '=')
        return fail(at_, "'='");
    at_++;
    if (!read_value(target))
        return false;
    return at_end() || is_space(text_[at_]) || fail(at_, "a space or the end");
}

// Follows the dots, making the sub-messages on the way.
Reader::Target Reader::read_path(ProtobufCMessage &message, std::vector<uint32_t> *fields_given)
{
    for (auto *at_message = &message;; at_++) {
        const size_t start = at_;
        const std::string name(take_name());
        const auto &type = *at_message->descriptor;
        const auto *field = protobuf_c_message_descriptor_get_field_by_name(&type, name.c_str());
        if (field == nullptr) {
            fail(start, field_expected(type));
            return {message, nullptr};
        }
        if (at_message == &message &&
            std::ranges::find(*fields_given, field->id) == fields_given->end())
            fields_given->push_back(field->id);
        bool has_fields = field->type == PROTOBUF_C_TYPE_MESSAGE && !is_mac(*field);
        if (!has_fields || at_end() || text_[at_] != '.')
            return {*at_message, field};
        at_message = &sub_message(*at_message, *field);
    }
}

// A field is given once, and `a={}` gives all of a.
bool Reader::note_given(size_t start, std::string_view path)
{
    auto is_under = [](std::string_view inner, std::string_view outer) {
        return inner.starts_with(outer) &&
               (inner.size() == outer.size() || inner[outer.size()] == '.');
    };
    for (auto given : given_) {
        if (is_under(path, given) || is_under(given, path))
            return fail(start, "another field: " + std::string(given) + " is already given");
    }
    given_.push_back(path);
    return true;
}

bool Reader::read_value(const Target &target)
{
    switch (target.field->type) {
    case PROTOBUF_C_TYPE_STRING:
        return read_text(target);
    case PROTOBUF_C_TYPE_BYTES:
        return read_bytes(target);
    case PROTOBUF_C_TYPE_MESSAGE: {
        if (is_mac(*target.field))
            return read_mac(target);
        const size_t start = at_;
        if (take_word() != NOTHING)
            return fail(start, "{}, or before the '=' a dot and " +
                                   field_expected(message_type(*target.field)));
        sub_message(target.message, *target.field);
        return true;
    }
    default:
        return read_number(target);
    }
}

bool Reader::read_number(const Target &target)
{
    const size_t start = at_;
    auto number = parse_number(take_word());
    if (!number)
        return fail(start, "a number from 0 to 4294967295");
    member<uint32_t>(target.message, *target.field) = *number;
    return true;
}

bool Reader::read_mac(const Target &target)
{
    const size_t start = at_;
    auto bytes = parse_mac(take_word());
    if (!bytes)
        return fail(start, "a MAC address such as 00:11:22:33:44:55");
    set_bytes(sub_message(target.message, *target.field), mac_data(*target.field), *bytes);
    return true;
}

bool Reader::read_bytes(const Target &target)
{
    const size_t start = at_;
    auto bytes = parse_bytes(take_word());
    if (!bytes)
        return fail(start, "bytes such as 0x0011ff");
    set_bytes(target.message, *target.field, *bytes);
    return true;
}

bool Reader::read_text(const Target &target)
{
    std::string value;
    if (!at_end() && text_[at_] == '"') {
        if (!read_quoted(&value))
            return false;
    } else {
        while (!at_end() && is_bare(text_[at_]))
            value += text_[at_++];
        if (value.empty())
            return fail(at_, "a string");
    }
    set_text(target.message, *target.field, value);
    return true;
}

bool Reader::read_quoted(std::string *value)
{
    for (at_++; !at_end() && text_[at_] != '"';) {
        if (text_[at_] == '\0')
            return fail(at_, "no zero byte in a string");
        if (text_[at_] != '\\')
            *value += text_[at_++];
        else if (!read_escape(value))
            return false;
    }
    if (at_end())
        return fail(at_, "a closing \"");
    at_++;
    return true;
}

// At a backslash.
bool Reader::read_escape(std::string *value)
{
    const size_t start = at_;
    const auto rest = text_.substr(start + 1);
    auto is_rest = [&](const auto &escape) { return rest.starts_with(escape.second); };
    const auto *escape = std::ranges::find_if(ESCAPES, is_rest);
    if (escape != std::end(ESCAPES)) {
        *value += escape->first;
        at_ += 2;
        return true;
    }
    auto byte = rest.starts_with('x') ? parse_hex(rest.substr(1, 2), 0) : std::nullopt;
    if (!byte || byte->size() != 1 || byte->front() == '\0')
        return fail(start, R"(an escape: \" \\ \n \t \r or \x01 to \xff)");
    *value += *byte;
    at_ += 4;
    return true;
}

void Reader::skip_space()
{
    while (!at_end() && is_space(text_[at_]))
        at_++;
}

std::string_view Reader::take_name()
{
    const size_t start = at_;
    while (!at_end() && (is_letter_or_digit(text_[at_]) || text_[at_] == '_'))
        at_++;
    return text_.substr(start, at_ - start);
}

std::string_view Reader::take_word()
{
    const size_t start = at_;
    while (!at_end() && !is_space(text_[at_]))
        at_++;
    return text_.substr(start, at_ - start);
}

bool Reader::fail(size_t at, std::string expected)
{
    if (error_ != nullptr)
        *error_ = {at + 1, std::move(expected)};
    return false;
}

} // namespace

} // namespace object
