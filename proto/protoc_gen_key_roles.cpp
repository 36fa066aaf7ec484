// protoc plugin that writes proto/key_roles.inc, the table behind
// proto/key_role.h: for every message of the given files its descriptor's name
// by protobuf-c's rule and the (p_libpub.key_role) of each field, in the order
// of the field numbers, which is the order of protobuf-c's descriptors. It also
// holds the schemas to what object/ can handle.

#include <algorithm>
#include <google/protobuf/compiler/code_generator.h>
#include <google/protobuf/compiler/plugin.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/printer.h>
#include <google/protobuf/io/zero_copy_stream.h>
#include <google/protobuf/unknown_field_set.h>
#include <memory>
#include <string>
#include <vector>

namespace pb = google::protobuf;

namespace
{

constexpr const char *OPTION = "p_libpub.key_role";

// p_bridge.b_oui -> p_bridge__b_oui. Our names are lower case, which protobuf-c
// keeps.
std::string c_name(const std::string &full_name)
{
    std::string name;
    for (char c : full_name)
        name += c == '.' ? std::string("__") : std::string(1, c);
    return name;
}

// The option is not compiled into this program, so it stands among the
// options' unknown fields, under the number that its definition gives it.
uint64_t key_role(const pb::FieldDescriptor &field)
{
    const auto *option = field.file()->pool()->FindExtensionByName(OPTION);
    const auto &options = field.options();
    const auto &unknown = options.GetReflection()->GetUnknownFields(options);
    for (int i = 0; option != nullptr && i < unknown.field_count(); i++) {
        if (unknown.field(i).number() == option->number())
            return unknown.field(i).varint();
    }
    return 0;
}

bool is_lower_case(const std::string &name)
{
    return std::none_of(name.begin(), name.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool is_mac(const pb::FieldDescriptor &field)
{
    return field.type() == pb::FieldDescriptor::TYPE_MESSAGE &&
           field.message_type()->full_name() == "p_libpub.mac";
}

// Whether the role is one that a field of this kind can have. A MAC must have
// one, as it is by its role that it is known to be a MAC.
bool role_fits(const pb::FieldDescriptor &field)
{
    const bool is_message = field.type() == pb::FieldDescriptor::TYPE_MESSAGE;
    switch (key_role(field)) {
    case 0:
        return !is_mac(field);
    case 1:
        return !is_message && field.type() != pb::FieldDescriptor::TYPE_BYTES;
    case 2:
        return is_message && field.number() == 5 && field.name() == "index";
    case 32:
    case 33:
        return is_mac(field);
    default:
        return false;
    }
}

bool type_fits(const pb::FieldDescriptor &field)
{
    switch (field.type()) {
    case pb::FieldDescriptor::TYPE_UINT32:
    case pb::FieldDescriptor::TYPE_ENUM:
    case pb::FieldDescriptor::TYPE_STRING:
    case pb::FieldDescriptor::TYPE_BYTES:
    case pb::FieldDescriptor::TYPE_MESSAGE:
        return !field.is_repeated() && field.containing_oneof() == nullptr;
    default:
        return false;
    }
}

// What is wrong with a message; "" if nothing.
std::string fault_of(const pb::Descriptor &message)
{
    if (!is_lower_case(message.full_name()) || message.nested_type_count() > 0 ||
        message.field_count() == 0)
        return message.full_name() + ": must have fields and a lower-case name, and not be nested";
    for (int i = 0; i < message.field_count(); i++) {
        const auto &field = *message.field(i);
        if (!type_fits(field))
            return field.full_name() + ": must be one uint32, enum, string, bytes or message";
        if (!role_fits(field))
            return field.full_name() + ": key_role does not fit the field";
    }
    return "";
}

std::string roles_of(const pb::Descriptor &message)
{
    std::vector<const pb::FieldDescriptor *> fields;
    fields.reserve(static_cast<size_t>(message.field_count()));
    for (int i = 0; i < message.field_count(); i++)
        fields.push_back(message.field(i));
    std::sort(fields.begin(), fields.end(),
              [](const auto *a, const auto *b) { return a->number() < b->number(); });
    std::string text;
    for (const auto *field : fields)
        text += (text.empty() ? "" : ", ") + std::to_string(key_role(*field));
    return text;
}

// The generated file's parts, gathered message by message.
struct Table {
    std::string includes, roles, messages, rows;
};

void add_message(Table *table, const pb::Descriptor &message)
{
    const std::string c = c_name(message.full_name());
    table->roles += "const uint8_t ROLES_" + c + "[] = {" + roles_of(message) + "};\n";
    table->messages += "    &" + c + "__descriptor,\n";
    table->rows += "    ROLES_" + c + ",\n";
}

bool add_file(Table *table, const pb::FileDescriptor &file, std::string *error)
{
    const std::string &name = file.name();
    table->includes += "#include \"" + name.substr(0, name.rfind(".proto")) + ".pb-c.h\"\n";
    for (int i = 0; i < file.message_type_count(); i++) {
        *error = fault_of(*file.message_type(i));
        if (!error->empty())
            return false;
        add_message(table, *file.message_type(i));
    }
    return true;
}

class KeyRoles : public pb::compiler::CodeGenerator
{
public:
    uint64_t GetSupportedFeatures() const override
    {
        return FEATURE_PROTO3_OPTIONAL;
    }

    bool Generate(const pb::FileDescriptor *file, const std::string &parameter,
                  pb::compiler::GeneratorContext *context, std::string *error) const override
    {
        return GenerateAll({file}, parameter, context, error);
    }

    bool GenerateAll(const std::vector<const pb::FileDescriptor *> &files, const std::string &,
                     pb::compiler::GeneratorContext *context, std::string *error) const override
    {
        Table table;
        for (const auto *file : files) {
            if (!add_file(&table, *file, error))
                return false;
        }
        std::unique_ptr<pb::io::ZeroCopyOutputStream> out(context->Open("proto/key_roles.inc"));
        pb::io::Printer printer(out.get(), '$');
        printer.Print({{"includes", table.includes},
                       {"roles", table.roles},
                       {"messages", table.messages},
                       {"rows", table.rows}},
                      "// Generated by protoc_gen_key_roles.\n$includes$\nnamespace\n{\n\n$roles$\n"
                      "const ProtobufCMessageDescriptor *const MESSAGES[] = {\n$messages$};\n\n"
                      "const uint8_t *const ROLES[] = {\n$rows$};\n\n} // namespace\n");
        return true;
    }
};

} // namespace

int main(int argc, char **argv)
{
    KeyRoles generator;
    return pb::compiler::PluginMain(argc, argv, &generator);
}
