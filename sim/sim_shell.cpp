#include "sim/sim_shell.h"

#include <cerrno>
#include <map>

#include "platform/ssat.h"
#include "shell/shell_command.h"
#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_host.h"
#include "sim/sim_process.h"

namespace sim
{

namespace
{

/* One table for each life of a process. */
std::map<uint64_t, shell_table> tables;

shell_table &table_now()
{
    return tables[process_life()];
}

} // namespace

bool shell_run(const std::string &command_line, std::string *output, int *status)
{
    const shell_call call = shell_parse(table_now(), command_line);
    if (call.handler == nullptr) {
        *output = call.sentence;
        return false;
    }
    int result = 0;
    OutputCapture capture;
    process_call([&] {
        result = call.handler(call.arguments.data(), static_cast<int>(call.arguments.size()));
    });
    *output = capture.text();
    if (status != nullptr)
        *status = result;
    return true;
}

std::vector<ShellCommand> shell_commands()
{
    std::vector<ShellCommand> result;
    for (const shell_command &command : table_now().commands)
        result.push_back({command.name, command.help});
    return result;
}

void shell_process_ended(uint64_t life)
{
    tables.erase(life);
}

void shell_reset()
{
    tables.clear();
}

} // namespace sim

int ssat_lib_init(kt_global *global, const char *module)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter(
        "ssat_lib_init", [&] { return std::string("module=") + sim::text_or_null(module); });
    if (fault != 0)
        return fault;
    if (!sim::global_is_open(global))
        return -ENOTCONN;
    return shell_add_module(&sim::table_now(), module);
}

int ssat_reg_mod_cmd(const char *module, const char *name, uint32_t flag, const char *help,
                     ssat_handler handler)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter("ssat_reg_mod_cmd", [&] {
        return std::string("module=") + sim::text_or_null(module) +
               " name=" + sim::text_or_null(name) + " flag=" + std::to_string(flag) + " help=\"" +
               sim::text_or_null(help) + "\"";
    });
    if (fault != 0)
        return fault;
    return shell_add_command(&sim::table_now(), module, name, flag, help, handler);
}
