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
    words_ = {"redis-server"};
    if (!sentinel.empty()) {
        words_.push_back(directory_ + "/sentinel.conf");
        std::ofstream(words_.back()) << sentinel;
    }
    for (const char *word : {"--port", "0", "--bind", "127.0.0.1", "--unixsocket", socket_.c_str(),
                             "--dir", directory_.c_str(), "--save", "", "--logfile", ""})
        words_.emplace_back(word);
    words_.insert(words_.end(), options.begin(), options.end());
    if (!sentinel.empty())
        words_.emplace_back("--sentinel");
    start();
    link_clients(socket_);
}

void RedisServer::make_directory()
{
    std::string pattern = std::filesystem::temp_directory_path() / "vvlan-test-XXXXXX";
    directory_ = mkdtemp(pattern.data());
    socket_ = directory_ + "/server.sock";
    link_ = directory_ + "/mom.sock";
}

RedisServer::~RedisServer()
{
    kill();
    std::filesystem::remove_all(directory_);
}

void RedisServer::start()
{
    std::array<int, 2> out = {-1, -1};
    ASSERT_EQ(pipe(out.data()), 0);
    std::vector<char *> words;
    for (std::string &word : words_)
        words.push_back(word.data());
    words.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
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
    if (control_ != nullptr)
        redisFree(control_);
    control_ = nullptr;
    if (pid_ < 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void RedisServer::freeze()
{
    ::kill(pid_, SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
}

void RedisServer::thaw()
{
    ::kill(pid_, SIGCONT);
}

const std::string &RedisServer::directory() const
{
    return directory_;
}

const std::string &RedisServer::socket() const
{
    return socket_;
}

const std::string &RedisServer::link() const
{
    return link_;
}

void RedisServer::unlink_clients()
{
    std::filesystem::remove(link_);
}

void RedisServer::link_clients(const std::string &to_socket)
{
    unlink_clients();
    std::filesystem::create_symlink(to_socket, link_);
}

std::string RedisServer::command(std::initializer_list<std::string_view> words)
{
    if (control_ == nullptr)
        control_ = redisConnectUnix(socket_.c_str());
    std::vector<const char *> pieces;
    std::vector<size_t> sizes;
    for (const std::string_view word : words) {
        pieces.push_back(word.data());
        sizes.push_back(word.size());
    }
    auto *reply = static_cast<redisReply *>(
        redisCommandArgv(control_, static_cast<int>(pieces.size()), pieces.data(), sizes.data()));
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
