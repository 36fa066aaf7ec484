/*
 * vvlan_man - writes the manual pages.
 *
 *     vvlan_man TEMPLATES SCHEMAS VERSION DATE DIRECTORY
 *
 * The fixed prose of each page stands in TEMPLATES, as a page with %names% in
 * it. What the programs know of themselves takes the place of the names: the
 * table of the environment, the commands as vvlanctl parses them, the kinds of
 * objects with what the schemas say of them. SCHEMAS is protoc's descriptor
 * set of them with source information, which has their comments. A name that
 * is unknown, and a section that no page shows, is an error.
 */
#include <CLI/CLI.hpp>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_state.h"
#include "ctl/ctl.h"
#include "linux/linux_env.h"
#include "object/object.h"
#include "proto/key_role.h"
#include "words/words.h"

namespace pb = google::protobuf;

namespace
{

constexpr const char *PAGES[] = {"ox.vvlan.dp.8", "vvlanctl.8", "vvlan-objects.5"};

/* What takes the place of %names%. */
using Sections = std::map<std::string, std::string>;

std::string environment();
std::string exits();
void add_command_line(Sections &sections);
void add_schemas(Sections &sections, const std::string &path);
std::string filled(const std::string &page, const Sections &sections, std::set<std::string> &used);
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);

void write_pages(const std::string &templates, const Sections &sections,
                 const std::string &directory)
{
    std::set<std::string> used;
    for (const std::string page : PAGES) {
        std::string from = templates;
        from.append("/").append(page).append(".in");
        std::string to = directory;
        to.append("/").append(page);
        write_file(to, filled(read_file(from), sections, used));
    }
    for (const auto &[name, text] : sections) {
        if (!used.contains(name))
            throw std::runtime_error("no page has %" + name + "%");
    }
}

/* The status that a parent sees of a result that main() returns. */
std::string status(int result)
{
    return std::to_string(static_cast<uint8_t>(result));
}

} // namespace

int main(int count, char **arguments)
{
    if (count != 6) {
        std::cerr << "usage: vvlan_man TEMPLATES SCHEMAS VERSION DATE DIRECTORY\n";
        return 2;
    }
    try {
        Sections sections = {
            {"version", arguments[3]},
            {"date", arguments[4]},
            {"environment", environment()},
            {"exits", exits()},
            {"exit-other-instance", status(UDP_VVLAN_EXIT_OTHER_INSTANCE)},
            {"exit-not-connected", status(-ENOTCONN)},
            {"exit-no-context", status(UDP_VVLAN_E_NO_CONTEXT)},
        };
        add_command_line(sections);
        add_schemas(sections, arguments[2]);
        write_pages(arguments[1], sections, arguments[5]);
    } catch (const std::exception &error) {
        std::cerr << "vvlan_man: " << error.what() << '\n';
        return 1;
    }
    return 0;
}

namespace
{

/* --------------------------------------------------------------------- files */

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!(text << file.rdbuf()))
        throw std::runtime_error(path + " cannot be read");
    return text.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream file(path, std::ios::binary);
    if (!(file << text).flush())
        throw std::runtime_error(path + " cannot be written");
}

std::string filled(const std::string &page, const Sections &sections, std::set<std::string> &used)
{
    std::string text;
    size_t at = 0;
    for (size_t open; (open = page.find('%', at)) != std::string::npos;) {
        const size_t close = page.find('%', open + 1);
        if (close == std::string::npos)
            throw std::runtime_error("a % without its other one");
        const std::string name = page.substr(open + 1, close - open - 1);
        const auto section = sections.find(name);
        if (section == sections.end())
            throw std::runtime_error("nothing is known of %" + name + "%");
        used.insert(name);
        text += page.substr(at, open - at) + section->second;
        at = close + 1;
    }
    return text + page.substr(at);
}

/* ---------------------------------------------------------------------- roff */

bool is_lower(const std::string &text, size_t at)
{
    return at < text.size() && std::islower(static_cast<unsigned char>(text[at])) != 0;
}

/*
 * Text as it stands: roff has other glyphs for some characters, which nobody
 * could copy to a terminal. In prose, a hyphen is meant between the letters of
 * a word.
 */
std::string escaped(const std::string &text, bool is_prose)
{
    static const std::map<char, std::string> GLYPHS = {
        {'\\', "\\e"}, {'~', "\\(ti"}, {'^', "\\(ha"}, {'`', "\\(ga"}, {'\'', "\\(aq"}};
    std::string made = text.starts_with('.') ? "\\&" : "";
    for (size_t at = 0; at < text.size(); at++) {
        const auto glyph = GLYPHS.find(text[at]);
        const bool in_word = is_prose && at > 0 && is_lower(text, at - 1) && is_lower(text, at + 1);
        if (glyph != GLYPHS.end())
            made += glyph->second;
        else
            made += text[at] == '-' && !in_word ? std::string("\\-") : std::string(1, text[at]);
    }
    return made;
}

std::string plain(const std::string &text)
{
    return escaped(text, true);
}

std::string code(const std::string &text)
{
    return escaped(text, false);
}

std::string bold(const std::string &text)
{
    return "\\fB" + code(text) + "\\fR";
}

std::string italic(const std::string &text)
{
    return "\\fI" + code(text) + "\\fR";
}

/* A line for people: with a full stop, and what `stands so` in bold. */
std::string prose(std::string text)
{
    if (text.empty())
        return {};
    if (!text.ends_with('.'))
        text += '.';
    std::string made;
    bool is_bold = false;
    std::istringstream pieces(text);
    for (std::string piece; std::getline(pieces, piece, '`'); is_bold = !is_bold)
        made += is_bold ? bold(piece) : plain(piece);
    return made + "\n";
}

/* The same of a note, which begins with a small letter. */
std::string sentence(std::string note)
{
    if (!note.empty())
        note[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(note[0])));
    return prose(note);
}

std::string item(const std::string &tag, const std::string &body)
{
    return ".TP\n" + tag + "\n" + body;
}

std::string example(const std::vector<std::string> &lines)
{
    std::string made = ".PP\n.EX\n";
    for (const std::string &line : lines)
        made += code(line) + "\n";
    return made + ".EE\n";
}

/* A section stands on a line of its own in its page. */
std::string section(const std::string &text)
{
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

/* --------------------------------------------------------------- environment */

std::string environment()
{
    std::string made;
    for (const linux_env_variable &variable : linux_env_table()) {
        std::string body = prose(variable.meaning);
        if (*variable.by_default != '\0')
            body += ".br\nDefault: " + code(variable.by_default) + "\n";
        made += item(bold(variable.name), body);
    }
    return section(made);
}

/* -------------------------------------------------------------- command line */

std::string exits()
{
    std::string made;
    for (const ctl::ExitMeaning &exit : ctl::ctl_exits())
        made += item(bold(std::to_string(exit.status)), sentence(exit.meaning));
    return section(made);
}

/* What a person writes for an option's value, without the check behind it: "PART:{ports,ouis}". */
std::string type_of(const CLI::Option &option)
{
    const std::string type = option.get_type_name();
    return type.substr(0, type.find(':'));
}

std::string value(const CLI::Option &option)
{
    return option.get_items_expected_max() == 0 ? "" : " " + italic(type_of(option));
}

/* "--mom SERVER", "-j, --json" */
std::string option_names(const CLI::Option &option)
{
    std::string made;
    for (const std::string &name : option.get_snames())
        made += (made.empty() ? "" : ", ") + bold("-" + name);
    for (const std::string &name : option.get_lnames())
        made += (made.empty() ? "" : ", ") + bold("--" + name);
    return made + value(option);
}

/* "PORT", "MAC...", "[PORTS]" */
std::string argument(const CLI::Option &option)
{
    const std::string type = type_of(option);
    std::string made = italic(type);
    if (option.get_items_expected_max() > 1)
        made += type.find(' ') == std::string::npos ? "..." : " ...";
    return option.get_required() ? made : "[" + made + "]";
}

std::string arguments(const CLI::App &command)
{
    std::string made;
    for (const CLI::Option *option : command.get_options()) {
        if (option->get_positional())
            made += " " + argument(*option);
    }
    return made;
}

/* What a command can be told beside its name; but for --help, which all have. */
std::vector<const CLI::Option *> options_of(const CLI::App &command)
{
    std::vector<const CLI::Option *> made;
    for (const CLI::Option *option : command.get_options()) {
        if (option != command.get_help_ptr())
            made.push_back(option);
    }
    return made;
}

std::string option_item(const CLI::Option &option)
{
    return item(option.get_positional() ? italic(type_of(option)) : option_names(option),
                prose(option.get_description()));
}

/* The examples in its footer that begin so; none twice. */
void add_examples(const CLI::App &command, const std::string &beginning,
                  std::vector<std::string> &lines)
{
    const std::string indent = "  ";
    std::istringstream footer(command.get_footer());
    for (std::string line; std::getline(footer, line);) {
        if (!line.starts_with(indent + beginning))
            continue;
        line.erase(0, indent.size());
        if (std::ranges::find(lines, line) == lines.end())
            lines.push_back(line);
    }
}

std::vector<const CLI::App *> children(const CLI::App &app)
{
    return app.get_subcommands([](const CLI::App *) { return true; });
}

/* The commands that do something: those below, or the one itself. */
std::vector<std::pair<std::string, const CLI::App *>> leaves(const CLI::App &top)
{
    std::vector<std::pair<std::string, const CLI::App *>> made;
    for (const CLI::App *child : children(top))
        made.emplace_back(top.get_name() + " " + child->get_name(), child);
    if (made.empty())
        made.emplace_back(top.get_name(), &top);
    return made;
}

std::string synopsis(const CLI::App &app)
{
    std::string made = bold(app.get_name()) + " [" + italic("OPTION") + "...] " +
                       italic("COMMAND") + " [" + italic("ARGUMENT") + "...]\n.PP\n.nf\n";
    for (const CLI::App *top : children(app)) {
        for (const auto &[name, command] : leaves(*top))
            made += bold(app.get_name() + " " + name) + arguments(*command) + "\n";
    }
    return made + ".fi";
}

/* A command, with those of its options that are not `told` already. */
std::string command_item(const CLI::App &top, const std::string &name, const CLI::App &command,
                         const std::set<std::string> &told)
{
    std::string tag = bold(name) + arguments(command);
    std::string details;
    for (const CLI::Option *option : options_of(command)) {
        if (!option->get_positional())
            tag += " [" + option_names(*option) + "]";
        const std::string detail = option_item(*option);
        if (!told.contains(detail))
            details += detail;
    }
    std::vector<std::string> examples;
    add_examples(top, "vvlanctl " + name, examples);
    add_examples(command, "vvlanctl " + name, examples);
    return item(tag,
                prose(command.get_description()) + ".RS\n" + details + example(examples) + ".RE\n");
}

/* What several commands of a group have in common is told once, above them. */
std::string command_section(const CLI::App &top)
{
    std::string made = ".SS " + code(top.get_name()) + "\n";
    if (!children(top).empty())
        made += prose(top.get_description());
    std::set<std::string> seen;
    std::set<std::string> told;
    for (const auto &[name, command] : leaves(top)) {
        for (const CLI::Option *option : options_of(*command)) {
            const std::string detail = option_item(*option);
            if (!seen.insert(detail).second && told.insert(detail).second)
                made += detail;
        }
    }
    for (const auto &[name, command] : leaves(top))
        made += command_item(top, name, *command, told);
    return made;
}

void add_command_line(Sections &sections)
{
    ctl::ctl_visit([&sections](const CLI::App &app) {
        std::string commands;
        for (const CLI::App *top : children(app))
            commands += command_section(*top);
        std::string options;
        for (const CLI::Option *option : app.get_options())
            options += option_item(*option);
        std::vector<std::string> examples;
        add_examples(app, "", examples);
        sections["synopsis"] = synopsis(app);
        sections["options"] = section(options);
        sections["commands"] = section(commands);
        sections["examples"] = section(".RS\n" + example(examples) + ".RE\n");
    });
}

/* ------------------------------------------------------------------- schemas */

/* The comment above a declaration or behind it, in one line. */
template <typename Descriptor> std::string comment(const Descriptor &descriptor)
{
    pb::SourceLocation location;
    if (!descriptor.GetSourceLocation(&location))
        return {};
    std::istringstream words(location.leading_comments + location.trailing_comments);
    std::string made;
    for (std::string word; words >> word;)
        made += (made.empty() ? "" : " ") + word;
    return made;
}

bool is_key(uint32_t role)
{
    return role == PROTO_KEY_ROLE_FIELD || role == PROTO_KEY_ROLE_MAC_FIELD;
}

bool is_mac(uint32_t role)
{
    return role == PROTO_KEY_ROLE_MAC || role == PROTO_KEY_ROLE_MAC_FIELD;
}

const char *type_text(const ProtobufCFieldDescriptor &field)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_STRING:
        return "string";
    case PROTOBUF_C_TYPE_BYTES:
        return "bytes";
    case PROTOBUF_C_TYPE_MESSAGE:
        return "MAC";
    default:
        return "number";
    }
}

/* A message's fields as the text form names them: "index.ifx". */
std::string fields(const ProtobufCMessageDescriptor &type, const pb::Descriptor &schema,
                   const std::string &prefix, bool is_in_key)
{
    std::string made;
    for (unsigned i = 0; i < type.n_fields; i++) {
        const ProtobufCFieldDescriptor &field = type.fields[i];
        const pb::FieldDescriptor &told = *schema.FindFieldByName(field.name);
        const std::string name = prefix + field.name;
        const uint32_t role = proto_key_role(&field);
        if (field.type == PROTOBUF_C_TYPE_MESSAGE && !is_mac(role)) {
            const auto &part = *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
            made += fields(part, *told.message_type(), name + ".", role == PROTO_KEY_ROLE_INDEX);
            continue;
        }
        const std::string key = is_in_key && is_key(role) ? ", key" : "";
        made += item(bold(name) + " (" + type_text(field) + key + ")", sentence(comment(told)));
    }
    return made;
}

std::string object_section(const object::Kind &kind, const pb::DescriptorPool &pool)
{
    const std::string name = object::kind_name(kind);
    const pb::Descriptor *schema = pool.FindMessageTypeByName(name);
    const std::optional<uint32_t> db = words::database_of(name);
    if (schema == nullptr || !db)
        throw std::runtime_error("nothing is known of " + name);
    return ".SS " + code(name) + "\n" + sentence(comment(*schema)) + "In database " +
           std::to_string(*db) + ", " +
           (object::kind_is_keyed(kind) ? "one object for each key" : "one single object") + ".\n" +
           fields(object::kind_descriptor(kind), *schema, "", false);
}

std::string enum_section(const pb::EnumDescriptor &type)
{
    std::string made = ".SS " + plain(type.full_name()) + "\n" + sentence(comment(type));
    for (int i = 0; i < type.value_count(); i++) {
        const pb::EnumValueDescriptor &value = *type.value(i);
        made += item(bold(std::to_string(value.number())) + " (" + plain(value.name()) + ")",
                     sentence(comment(value)));
    }
    return made;
}

void add_schemas(Sections &sections, const std::string &path)
{
    pb::FileDescriptorSet schemas;
    if (!schemas.ParseFromString(read_file(path)))
        throw std::runtime_error(path + " is no descriptor set");
    pb::DescriptorPool pool;
    std::string objects;
    std::string enumerations;
    for (const pb::FileDescriptorProto &file : schemas.file()) {
        const pb::FileDescriptor *built = pool.BuildFile(file);
        if (built == nullptr)
            throw std::runtime_error(path + " does not hold together");
        const bool is_ours = built->package() != "google.protobuf";
        for (int i = 0; is_ours && i < built->enum_type_count(); i++)
            enumerations += enum_section(*built->enum_type(i));
    }
    for (const object::Kind *kind : object::kinds())
        objects += object_section(*kind, pool);
    sections["objects"] = section(objects);
    sections["enumerations"] = section(enumerations);
}

} // namespace
