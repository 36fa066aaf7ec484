#include "linux/redis_value.h"

#include "object/object_field.h"
#include "platform/kt_mom.h"
#include "proto/key_role.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace redis
{

namespace
{

constexpr char MARK = 'K';
constexpr uint8_t FIELDWISE = 1;
constexpr uint8_t OWNED = 2;
constexpr size_t ID_SIZE = 8;
constexpr size_t NUMBER_SIZE = 4;

/* What may be told of an object. */
bool is_told(uint32_t operation)
{
    return operation == KT_MOM_SET || operation == KT_MOM_DEL || operation == KT_MOM_HSET ||
           operation == KT_MOM_PUBLISH;
}

/* Takes text apart from its front; after the first piece that is not there nothing is. */
class Pieces
{
public:
    explicit Pieces(std::string_view text) : left_(text)
    {
    }
    std::string_view take(size_t size)
    {
        if (size > left_.size())
            is_whole_ = false;
        const std::string_view piece = is_whole_ ? left_.substr(0, size) : std::string_view();
        left_.remove_prefix(piece.size());
        return piece;
    }
    uint8_t byte()
    {
        const std::string_view piece = take(1);
        return piece.empty() ? uint8_t{0} : static_cast<uint8_t>(piece[0]);
    }
    std::string_view rest()
    {
        return take(left_.size());
    }
    bool is_whole() const
    {
        return is_whole_;
    }

private:
    std::string_view left_;
    bool is_whole_ = true;
};

} // namespace

std::optional<Value> value_of(std::string_view stored)
{
    Pieces pieces(stored);
    if (pieces.byte() != MARK)
        return std::nullopt;
    const uint8_t flags = pieces.byte();
    const size_t writers = pieces.byte();
    const size_t fields = pieces.byte();
    pieces.take(writers * ID_SIZE + ((flags & OWNED) != 0 ? ID_SIZE : 0));
    Value value;
    value.is_fieldwise = (flags & FIELDWISE) != 0;
    value.fields = pieces.take(fields * NUMBER_SIZE);
    value.message = pieces.rest();
    return pieces.is_whole() ? std::optional(value) : std::nullopt;
}

std::optional<Note> note_of(std::string_view published)
{
    Pieces pieces(published);
    Note note;
    note.operation = pieces.byte();
    note.writer = pieces.take(ID_SIZE);
    const size_t high = pieces.byte();
    note.key = pieces.take(high << 8 | pieces.byte());
    note.fields = pieces.take(pieces.byte() * NUMBER_SIZE);
    note.message = pieces.rest();
    return pieces.is_whole() && is_told(note.operation) ? std::optional(note) : std::nullopt;
}

std::string note_text(const Note &note)
{
    std::string text(1, static_cast<char>(note.operation));
    text.append(note.writer);
    text += static_cast<char>(note.key.size() >> 8);
    text += static_cast<char>(note.key.size() & 0xff);
    text.append(note.key);
    text += static_cast<char>(note.fields.size() / NUMBER_SIZE);
    return text.append(note.fields).append(note.message);
}

std::vector<uint32_t> numbers_of(std::string_view fields)
{
    std::vector<uint32_t> numbers;
    for (size_t at = 0; at + NUMBER_SIZE <= fields.size(); at += NUMBER_SIZE) {
        uint32_t number = 0;
        for (const char byte : fields.substr(at, NUMBER_SIZE))
            number = number << 8 | static_cast<uint8_t>(byte);
        numbers.push_back(number);
    }
    return numbers;
}

std::string fields_text(const std::vector<uint32_t> &numbers)
{
    std::string text;
    for (const uint32_t number : numbers) {
        for (int shift = 24; shift >= 0; shift -= 8)
            text += static_cast<char>(number >> shift & 0xff);
    }
    return text;
}

std::string pack(const ProtobufCMessage &message)
{
    std::string packed(protobuf_c_message_get_packed_size(&message), '\0');
    protobuf_c_message_pack(&message, reinterpret_cast<uint8_t *>(packed.data()));
    return packed;
}

Unpacked::~Unpacked()
{
    for (Block *block = more_; block != nullptr;) {
        Block *next = block->next;
        std::free(block);
        block = next;
    }
}

const ProtobufCMessage *Unpacked::unpack(const object::Kind &kind, std::string_view key,
                                         std::string_view message)
{
    ProtobufCAllocator allocator = {
        [](void *self, size_t size) { return static_cast<Unpacked *>(self)->take(size); },
        [](void *, void *) {}, this};
    const ProtobufCMessage *object =
        protobuf_c_message_unpack(&object::kind_descriptor(kind), &allocator, message.size(),
                                  reinterpret_cast<const uint8_t *>(message.data()));
    return object != nullptr && object::key_is(*object, key) ? object : nullptr;
}

const ProtobufCMessage *Unpacked::from_key(const object::Kind &kind, std::string_view key)
{
    from_key_ = object::from_key(kind, key);
    return from_key_.get();
}

void *Unpacked::take(size_t size)
{
    constexpr size_t ALIGNED = alignof(std::max_align_t);
    size = (size + ALIGNED - 1) & ~(ALIGNED - 1);
    if (size <= bytes_.size() - used_) {
        void *taken = &bytes_[used_];
        used_ += size;
        return taken;
    }
    auto *block = static_cast<Block *>(std::malloc(ALIGNED + size));
    if (block == nullptr)
        return nullptr;
    block->next = std::exchange(more_, block);
    return reinterpret_cast<char *>(block) + ALIGNED;
}

std::string key_shape(const object::Kind &kind)
{
    std::string shape;
    if (!object::kind_is_keyed(kind))
        return shape;
    const auto *index = protobuf_c_message_descriptor_get_field(&object::kind_descriptor(kind),
                                                                object::INDEX_NUMBER);
    const auto &type = *static_cast<const ProtobufCMessageDescriptor *>(index->descriptor);
    for (unsigned i = 0; i < type.n_fields; i++) {
        const ProtobufCFieldDescriptor &field = type.fields[i];
        const uint32_t role = proto_key_role(&field);
        if (role != PROTO_KEY_ROLE_FIELD && role != PROTO_KEY_ROLE_MAC_FIELD)
            continue;
        shape += field.type == PROTOBUF_C_TYPE_MESSAGE  ? '6'
                 : field.type == PROTOBUF_C_TYPE_STRING ? 's'
                                                        : '4';
    }
    return shape;
}

bool key_selects(std::string_view shape, std::string_view wanted, std::string_view key)
{
    const auto take = [](std::string_view &from, char width) {
        size_t size = static_cast<size_t>(width - '0');
        if (width == 's')
            size = from.find('\0') + 1; /* npos + 1 is 0 */
        size = std::min(size, from.size());
        const std::string_view piece(from.data(), size);
        from.remove_prefix(size);
        return piece;
    };
    for (const char width : shape) {
        const std::string_view part = take(wanted, width);
        const std::string_view mine = take(key, width);
        if (part != mine && std::ranges::any_of(part, [](char byte) { return byte != '\0'; }))
            return false;
    }
    return true;
}

} // namespace redis
