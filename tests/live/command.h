/* A command line of the shell, for tests of programs. */
#ifndef TESTS_LIVE_COMMAND_H
#define TESTS_LIVE_COMMAND_H

#include <cstdio>
#include <string>
#include <sys/wait.h>

struct Output {
    std::string text; /* standard output and error */
    int status;       /* -1 when a signal ended it */
};

inline Output run(const std::string &command)
{
    Output output{"", -1};
    std::FILE *pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return output;
    char chunk[4096];
    for (size_t got; (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        output.text.append(chunk, got);
    const int status = pclose(pipe);
    output.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return output;
}

#endif
