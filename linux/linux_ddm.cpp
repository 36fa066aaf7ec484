#include "linux/linux_ddm.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <net/if.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>

#include "linux/linux_env.h"
#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "platform/libddm.h"
#include "text/number.h"

namespace
{

constexpr size_t NAME_MAX_LENGTH = 63;
constexpr off_t FILE_SIZE_MAX = 16 << 20;

struct Port {
    linux_ddm_pair pair;
    bool is_given_out;
};

struct Map {
    bool is_open = false;
    bool is_host = false;
    std::string file;
    std::unordered_map<uint32_t, Port> by_ifx;
    std::unordered_map<uint32_t, uint32_t> ifx_by_phyid;
};
Map *the_map; /* never freed, see linux_loop */

Map &map_now()
{
    if (the_map == nullptr)
        the_map = new Map;
    return *the_map;
}

std::string read_map_file(const std::string &path, std::string *text);
void take(const linux_ddm_map &read);
bool ask_host(uint32_t index);

} // namespace

/* ------------------------------------------------------------------ the file */

namespace
{

/* The next word of a line, or an empty one. */
std::string_view next_word(std::string_view *line)
{
    const size_t start = std::min(line->find_first_not_of(" \t\r"), line->size());
    line->remove_prefix(start);
    const std::string_view word = line->substr(0, line->find_first_of(" \t\r"));
    line->remove_prefix(word.size());
    return word;
}

/* Returns why the line is wrong, or "" and the pair. */
std::string parse_line(std::string_view line, linux_ddm_pair *pair)
{
    const std::string_view ifx = next_word(&line);
    const std::string_view phyid = next_word(&line);
    const std::string_view name = next_word(&line);
    if (name.empty() || !next_word(&line).empty())
        return "\"ifx phyid name\" is wanted";
    for (const auto &[word, number] : {std::pair{ifx, &pair->ifx}, {phyid, &pair->phyid}}) {
        const auto value = text::number_read(word);
        if (!value || *value == 0 || *value > UINT32_MAX)
            return "\"" + std::string(word.substr(0, NAME_MAX_LENGTH)) +
                   "\" is no number from 1 to 4294967295";
        *number = static_cast<uint32_t>(*value);
    }
    if (name.size() > NAME_MAX_LENGTH)
        return "the name is longer than " + std::to_string(NAME_MAX_LENGTH) + " characters";
    pair->name = name;
    return "";
}

/* The lines that the numbers of a file were seen in. */
struct Seen {
    std::unordered_map<uint32_t, size_t> ifx, phyid;
};

/* Returns why the pair cannot be taken, or "". */
std::string note(Seen *seen, const linux_ddm_pair &pair, size_t line)
{
    if (seen->ifx.size() >= LINUX_DDM_PAIRS_MAX)
        return "there are more than " + std::to_string(LINUX_DDM_PAIRS_MAX) + " ports";
    const auto ifx = seen->ifx.find(pair.ifx);
    if (ifx != seen->ifx.end())
        return "ifx " + std::to_string(pair.ifx) + " stands in line " +
               std::to_string(ifx->second) + " already";
    const auto phyid = seen->phyid.find(pair.phyid);
    if (phyid != seen->phyid.end())
        return "phyid " + std::to_string(pair.phyid) + " stands in line " +
               std::to_string(phyid->second) + " already";
    seen->ifx.emplace(pair.ifx, line);
    seen->phyid.emplace(pair.phyid, line);
    return "";
}

std::string complaint(const std::string &file, size_t line, const std::string &why)
{
    return std::string(file).append(":").append(std::to_string(line)).append(": ").append(why);
}

} // namespace

linux_ddm_map linux_ddm_parse(std::string_view text, const std::string &file)
{
    linux_ddm_map map;
    Seen seen;
    for (size_t number = 1; !text.empty(); number++) {
        const size_t length = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, length);
        text.remove_prefix(std::min(length + 1, text.size()));
        line = line.substr(0, line.find('#'));
        if (line.find_first_not_of(" \t\r") == std::string_view::npos)
            continue;
        linux_ddm_pair pair = {};
        std::string why = parse_line(line, &pair);
        if (why.empty())
            why = note(&seen, pair, number);
        if (why.empty())
            map.pairs.push_back(std::move(pair));
        else
            map.complaints.push_back(complaint(file, number, why));
    }
    return map;
}

/* ------------------------------------------------------------------- the map */

std::vector<linux_ddm_pair> linux_ddm_pairs()
{
    std::vector<linux_ddm_pair> pairs;
    if (map_now().is_host) {
        const std::unique_ptr<struct if_nameindex, void (*)(struct if_nameindex *)> all(
            if_nameindex(), if_freenameindex);
        for (const struct if_nameindex *at = all.get(); at != nullptr && at->if_index != 0; at++)
            pairs.push_back({at->if_index, at->if_index, at->if_name});
        return pairs;
    }
    for (const auto &[ifx, port] : map_now().by_ifx)
        pairs.push_back(port.pair);
    std::sort(pairs.begin(), pairs.end(),
              [](const auto &one, const auto &other) { return one.ifx < other.ifx; });
    return pairs;
}

int linux_ddm_reload()
{
    Map &map = map_now();
    if (!map.is_open)
        return -ENOTCONN;
    if (map.is_host)
        return 0;
    std::string text;
    const std::string failed = read_map_file(map.file, &text);
    if (!failed.empty()) {
        LINUX_LOG(KTDF_ZLOG_LV_ERROR, "%s: %s; the ports stay as they are", map.file.c_str(),
                  failed.c_str());
        return -EIO;
    }
    const linux_ddm_map read = linux_ddm_parse(text, map.file);
    for (const std::string &complaint : read.complaints)
        LINUX_LOG(KTDF_ZLOG_LV_WARN, "%s; the line is skipped", complaint.c_str());
    take(read);
    LINUX_LOG(KTDF_ZLOG_LV_NOTICE, "%s: %zu ports", map.file.c_str(), map.by_ifx.size());
    return 0;
}

void linux_ddm_reset()
{
    map_now() = {};
}

int libddm_init(kt_global *global, const char *name)
{
    const linux_env_settings *settings = linux_env();
    if (name == nullptr || settings == nullptr)
        return -EINVAL;
    if (!linux_global_is_open(global))
        return -ENOTCONN;
    Map &map = map_now();
    if (map.is_open)
        return 0;
    map.is_open = true;
    map.file = settings->ports;
    map.is_host = map.file == "host";
    const int result = linux_ddm_reload();
    map.is_open = result == 0;
    return result == 0 ? linux_loop_on_hangup([] { linux_ddm_reload(); }) : result;
}

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    Map &map = map_now();
    auto at = map.by_ifx.find(ifx);
    if (at == map.by_ifx.end()) {
        if (!ask_host(ifx))
            return -ENOENT;
        at = map.by_ifx.find(ifx);
    }
    at->second.is_given_out = true;
    *phyid = at->second.pair.phyid;
    return 0;
}

int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    Map &map = map_now();
    auto at = map.ifx_by_phyid.find(phyid);
    if (at == map.ifx_by_phyid.end()) {
        if (!ask_host(phyid))
            return -ENOENT;
        at = map.ifx_by_phyid.find(phyid);
    }
    map.by_ifx.at(at->second).is_given_out = true;
    *ifx = at->second;
    return 0;
}

namespace
{

/* Returns "" and the file's text, or why it cannot be read. Not a directory, no pipe. */
std::string read_map_file(const std::string &path, std::string *text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return std::strerror(errno);
    struct stat status = {};
    std::string why;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
        why = "not a file";
    else if (status.st_size > FILE_SIZE_MAX)
        why = "larger than 16 MiB";
    char block[16'384];
    ssize_t length = 0;
    while (why.empty() && (length = read(fd, block, sizeof block)) > 0)
        text->append(block, static_cast<size_t>(length));
    if (length < 0)
        why = std::strerror(errno);
    close(fd);
    return why;
}

void add(Map *map, const linux_ddm_pair &pair, bool is_given_out)
{
    map->by_ifx.emplace(pair.ifx, Port{pair, is_given_out});
    map->ifx_by_phyid.emplace(pair.phyid, pair.ifx);
}

/* Replaces the map; what was given out stays and wins over the file. */
void take(const linux_ddm_map &read)
{
    Map &map = map_now();
    const auto before = std::exchange(map.by_ifx, {});
    map.ifx_by_phyid.clear();
    for (const auto &[ifx, port] : before) {
        if (port.is_given_out)
            add(&map, port.pair, true);
    }
    size_t confirmed = 0;
    const size_t kept = map.by_ifx.size();
    for (const linux_ddm_pair &pair : read.pairs) {
        const auto known = map.by_ifx.find(pair.ifx);
        if (known == map.by_ifx.end() && !map.ifx_by_phyid.contains(pair.phyid)) {
            add(&map, pair, false);
        } else if (known != map.by_ifx.end() && known->second.pair.phyid == pair.phyid) {
            known->second.pair.name = pair.name;
            confirmed++;
        } else {
            LINUX_LOG(KTDF_ZLOG_LV_WARN,
                      "%s: ifx %u, phyid %u: a port in use keeps its numbers until a restart",
                      map.file.c_str(), pair.ifx, pair.phyid);
        }
    }
    if (confirmed < kept)
        LINUX_LOG(KTDF_ZLOG_LV_WARN, "%s: %zu ports in use are no longer named; they stay",
                  map.file.c_str(), kept - confirmed);
}

/* Takes an interface of the host into the map; false when there is none of that index. */
bool ask_host(uint32_t index)
{
    Map &map = map_now();
    char name[IF_NAMESIZE] = {};
    if (!map.is_host || index == 0 || map.by_ifx.size() >= LINUX_DDM_PAIRS_MAX ||
        if_indextoname(index, name) == nullptr)
        return false;
    add(&map, {index, index, name}, true);
    return true;
}

} // namespace
