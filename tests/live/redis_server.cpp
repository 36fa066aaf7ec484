#include "tests/live/redis_server.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

/* Reads what the server says until it says that it is ready. */
void wait_until_ready(int fd)
{
    std::string said;
    std::array<char, 512> chunk;
    while (said.find("eady to accept connections") == std::string::npos &&
           said.find("Sentinel ID is") == std::string::npos) {
        const ssize_t got = read(fd, chunk.data(), chunk.size());
        if (got <= 0) {
            ADD_FAILURE() << "redis-server: " << said;
            return;
        }
        said.append(chunk.data(), static_cast<size_t>(got));
    }
}

std::string text_of(const redisReply &reply)
{
    if (reply.type == REDIS_REPLY_INTEGER)
        return std::to_string(reply.integer);
    std::string text = reply.str == nullptr ? "" : std::string(reply.str, reply.len);
    for (size_t i = 0; i < reply.elements; i++)
        text += text_of(*reply.element[i]) + "\n";
    return text;
}

} // namespace

RedisServer::RedisServer(bool keeps_data)
    : RedisServer({"--appendonly", keeps_data ? "yes" : "no", "--appendfsync", "always"})
{
}

RedisServer::RedisServer(std::vector<std::string> options) : RedisServer(std::move(options), "")
{
}

RedisServer::RedisServer(std::vector<std::string> options, const std::string &sentinel)
{
    make_directory();
    m_words = {"redis-server"};
    if (!sentinel.empty()) {
        m_words.push_back(m_directory + "/sentinel.conf");
        std::ofstream(m_words.back()) << sentinel;
    }
    for (const char *word : {"--port", "0", "--bind", "127.0.0.1", "--unixsocket", m_socket.c_str(),
                             "--dir", m_directory.c_str(), "--save", "", "--logfile", ""})
        m_words.emplace_back(word);
    m_words.insert(m_words.end(), options.begin(), options.end());
    if (!sentinel.empty())
        m_words.emplace_back("--sentinel");
    start();
    link_clients(m_socket);
}

void RedisServer::make_directory()
{
    std::string pattern = std::filesystem::temp_directory_path() / "vvlan-test-XXXXXX";
    m_directory = mkdtemp(pattern.data());
    m_socket = m_directory + "/server.sock";
    m_link = m_directory + "/mom.sock";
}

RedisServer::~RedisServer()
{
    kill();
    std::filesystem::remove_all(m_directory);
}

void RedisServer::start()
{
    std::array<int, 2> out = {-1, -1};
    ASSERT_EQ(pipe(out.data()), 0);
    std::vector<char *> words;
    for (std::string &word : m_words)
        words.push_back(word.data());
    words.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(out[1], STDOUT_FILENO);
        execvp(words[0], words.data());
        _exit(127);
    }
    close(out[1]);
    wait_until_ready(out[0]);
    close(out[0]);
}

void RedisServer::kill()
{
    if (m_control != nullptr)
        redisFree(m_control);
    m_control = nullptr;
    if (m_pid < 0)
        return;
    ::kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

void RedisServer::freeze()
{
    ::kill(m_pid, SIGSTOP);
    waitpid(m_pid, nullptr, WUNTRACED);
}

void RedisServer::thaw()
{
    ::kill(m_pid, SIGCONT);
}

const std::string &RedisServer::directory() const
{
    return m_directory;
}

const std::string &RedisServer::socket() const
{
    return m_socket;
}

const std::string &RedisServer::link() const
{
    return m_link;
}

void RedisServer::unlink_clients()
{
    std::filesystem::remove(m_link);
}

void RedisServer::link_clients(const std::string &to_socket)
{
    unlink_clients();
    std::filesystem::create_symlink(to_socket, m_link);
}

std::string RedisServer::command(std::initializer_list<std::string_view> words)
{
    if (m_control == nullptr)
        m_control = redisConnectUnix(m_socket.c_str());
    std::vector<const char *> pieces;
    std::vector<size_t> sizes;
    for (const std::string_view word : words) {
        pieces.push_back(word.data());
        sizes.push_back(word.size());
    }
    auto *reply = static_cast<redisReply *>(
        redisCommandArgv(m_control, static_cast<int>(pieces.size()), pieces.data(), sizes.data()));
    if (reply == nullptr) {
        ADD_FAILURE() << "no answer to " << *words.begin();
        return "";
    }
    std::string text = ::text_of(*reply);
    freeReplyObject(reply);
    return text;
}

std::vector<std::string> RedisServer::clients(std::string_view name)
{
    std::vector<std::string> ids;
    std::istringstream list(command({"CLIENT", "LIST"}));
    for (std::string line; std::getline(list, line);) {
        if (line.starts_with("id=") && line.find(name) != std::string::npos)
            ids.push_back(line.substr(3, line.find(' ') - 3));
    }
    return ids;
}

uint16_t free_port()
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *general = reinterpret_cast<sockaddr *>(&address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, general, size), 0);
    EXPECT_EQ(getsockname(fd, general, &size), 0);
    close(fd);
    return ntohs(address.sin_port);
}
