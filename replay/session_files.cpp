#include "session_files.h"

#include "host.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace replay
{

namespace
{

namespace fs = std::filesystem;

// On a machine of one thread an option takes the number, or whatever the last character is, off the name.
bool names_lose_their_end()
{
    const Machine_Shape &shape = host().shape();
    const unsigned option = PO_QTRACE_ENABLE_REMOVING_OF_PERMANENT_THREAD0_ID_FROM_TRACE_FILE;
    return shape.processors == 1 && shape.threads == 1 &&
           std::find(shape.options.begin(), shape.options.end(), option) != shape.options.end();
}

std::string file_of_thread(const std::string &base, int tid)
{
    if (names_lose_their_end())
        return base.substr(0, base.size() - std::min<size_t>(base.size(), 1));
    return base + std::to_string(tid);
}

// Empty for a file in a folder that does not exist, and for what is no regular file.
std::string lock_name(const std::string &file)
{
    const fs::path path(file);
    const std::string folder = path.has_parent_path() ? path.parent_path() : ".";
    struct stat info;
    if (stat(file.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
        return {};
    if (stat(folder.c_str(), &info) != 0)
        return {};
    const size_t name = std::hash<std::string>{}(path.filename());
    return "qtrace-session-" + std::to_string(info.st_dev) + "-" + std::to_string(info.st_ino) + "-" +
           std::to_string(name);
}

} // namespace

Session_Files::~Session_Files()
{
    release();
}

void Session_Files::protect(const std::string &file, const std::string &role)
{
    const std::string name = file == "-" ? "/dev/stdin" : file;
    struct stat info;
    if (stat(name.c_str(), &info) == 0)
        protected_[identity_of(name)] = role;
}

// Devices and pipes are no place where something could be lost, and have no identity.
Session_Files::Identity Session_Files::identity_of(const std::string &file)
{
    struct stat info;
    if (stat(file.c_str(), &info) == 0)
        return S_ISREG(info.st_mode) ? Identity{info.st_dev, std::to_string(info.st_ino)} : Identity{};
    std::error_code unknown;
    return {{}, fs::weakly_canonical(fs::absolute(file, unknown), unknown).string()};
}

// As the plugin reads the words of `start`: a pair that comes later replaces an earlier one.
std::vector<Session_Files::Family> Session_Files::families_of(const std::vector<std::string> &words)
{
    std::vector<Family> families{{"the trace", words[1]}};
    std::string text, entries;
    for (size_t n = 2; n < words.size(); ++n) {
        const bool is_pte = StrNCaseEqual(words.at(n).c_str(), "pte", 3) != 0;
        const bool is_txt = StrNCaseEqual(words.at(n).c_str(), "txt", 3) != 0;
        if ((is_pte || is_txt) && n + 1 < words.size())
            (is_pte ? entries : text) = words.at(++n);
    }
    if (!text.empty())
        families.push_back({"the text trace", text});
    if (!entries.empty())
        families.push_back({"the page-table-entry trace", entries});
    return families;
}

std::string Session_Files::refusal_of_file(const std::string &file, const Claims &taken) const
{
    const Identity identity = identity_of(file);
    if (identity == Identity{})
        return {};
    for (const Claims *claims : {&protected_, &taken})
        if (const auto claim = claims->find(identity); claim != claims->end())
            return file + " is " + claim->second + "; it is not written over";
    return {};
}

std::string Session_Files::prepare(const std::vector<std::string> &words)
{
    older_files_.clear();
    if (words.size() < 2)
        return {};
    if (StrCaseEqual(words[0].c_str(), "warm"))
        return refusal_of_file(words[1], session_);
    if (StrCaseEqual(words[0].c_str(), "start"))
        return prepare_start(families_of(words));
    return {};
}

// Adds the family's files to `claims`; why that cannot be, or an empty text.
std::string Session_Files::claim_family(const Family &family, Claims &claims) const
{
    Claims own;
    for (int tid = 0; tid < host().thread_count(); ++tid) {
        const std::string file = file_of_thread(family.base, tid);
        if (std::string refusal = refusal_of_file(file, claims); !refusal.empty())
            return refusal;
        if (Identity identity = identity_of(file); identity != Identity{})
            own.emplace(std::move(identity), std::string(family.role) + " of this session");
    }
    claims.merge(own);
    return {};
}

std::string Session_Files::prepare_start(const std::vector<Family> &families)
{
    Claims claims;
    for (const Family &family : families)
        if (std::string problem = claim_family(family, claims); !problem.empty())
            return problem;
    std::vector<Lock> locks;
    for (const Family &family : families) {
        if (std::string problem = lock(file_of_thread(family.base, 0), locks); !problem.empty()) {
            unlock(locks);
            return problem;
        }
        find_older_files(family);
    }
    session_ = std::move(claims);
    families_ = families;
    replace_locks(std::move(locks));
    return {};
}

// The plugin closes an open session before it opens the next, which may have the same names: their locks are kept.
void Session_Files::replace_locks(std::vector<Lock> locks)
{
    std::vector<Lock> finished;
    for (Lock &held : locks_) {
        const auto is_wanted = [&](const Family &family) {
            return lock_name(file_of_thread(family.base, 0)) == held.name;
        };
        const bool wanted = std::any_of(families_.begin(), families_.end(), is_wanted);
        (wanted ? locks : finished).push_back(std::move(held));
    }
    locks_ = std::move(locks);
    unlock(finished);
}

// A lock is a name that only one process of the machine can have, made of the folder and the file's name in it. It ends
// with its process and leaves nothing in the file system. What cannot be locked is left to the plugin.
std::string Session_Files::lock(const std::string &file, std::vector<Lock> &locks) const
{
    const std::string name = lock_name(file);
    const auto is_held = [&](const Lock &held) { return held.name == name; };
    if (name.empty() || std::any_of(locks_.begin(), locks_.end(), is_held))
        return {};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = '\0' + name; // what begins with 0 is no file
    std::copy(path.begin(), path.end(), address.sun_path);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool locked =
        descriptor >= 0 && bind(descriptor, reinterpret_cast<const sockaddr *>(&address), length) == 0;
    const bool taken = !locked && errno == EADDRINUSE;
    if (locked)
        locks.push_back({name, descriptor});
    else if (descriptor >= 0)
        close(descriptor);
    return taken ? file + " is being written by another replay host" : "";
}

void Session_Files::unlock(std::vector<Lock> &locks)
{
    for (const Lock &lock : locks)
        close(lock.descriptor);
    locks.clear();
}

void Session_Files::opened()
{
    session_.clear(); // new files have an identity now
    for (const Family &family : families_)
        claim_family(family, session_);
}

void Session_Files::release()
{
    unlock(locks_);
    session_.clear();
    families_.clear();
}

void Session_Files::find_older_files(const Family &family)
{
    if (names_lose_their_end())
        return;
    const fs::path base(family.base);
    const std::string stem = base.filename();
    std::map<uint64_t, std::string> found;
    std::error_code unreadable;
    for (const auto &entry :
         fs::directory_iterator(base.has_parent_path() ? base.parent_path() : ".", unreadable)) {
        const std::string name = entry.path().filename();
        const std::string digits = name.starts_with(stem) ? name.substr(stem.size()) : "";
        const uint64_t number = std::strtoull(digits.c_str(), nullptr, 10);
        if (std::to_string(number) == digits && number >= static_cast<uint64_t>(host().thread_count()))
            found[number] = family.base + digits;
    }
    for (const auto &[number, file] : found)
        older_files_.push_back(file);
}

} // namespace replay
