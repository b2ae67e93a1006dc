// The files that commands of the trace plugin would create. The plugin creates whatever it is told to, so this host
// looks first: nothing is written over the stream being read, into one file twice, or into another host's session.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace replay
{

class Session_Files
{
public:
    Session_Files() = default;
    ~Session_Files();
    Session_Files(const Session_Files &) = delete;
    Session_Files &operator=(const Session_Files &) = delete;

    // No command may write into `file`; `role` says what it is: "the commit stream". "-" is standard input.
    void protect(const std::string &file, const std::string &role);

    // Before the plugin gets the words of a command: why it must not, or an empty text. For a `start` that may be,
    // locks its files against other hosts of this machine and finds the files of older sessions with more threads.
    std::string prepare(const std::vector<std::string> &words);

    // Files of the same base names that the session which prepare() allowed does not replace.
    const std::vector<std::string> &older_files() const { return older_files_; }

    // What became of it: the session is open; it is closed, or was not opened.
    void opened();
    void release();

private:
    struct Family {
        const char *role; // "the trace"
        std::string base;
    };
    using Identity = std::pair<uint64_t, std::string>; // device and inode, or 0 and the path of a new file
    using Claims = std::map<Identity, std::string>;    // what each file is
    struct Lock {
        std::string name;
        int descriptor;
    };

    static std::vector<Family> families_of(const std::vector<std::string> &words);
    static Identity identity_of(const std::string &file);
    std::string refusal_of_file(const std::string &file, const Claims &taken) const;
    std::string prepare_start(const std::vector<Family> &families);
    std::string claim_family(const Family &family, Claims &claims) const;
    std::string lock(const std::string &file, std::vector<Lock> &locks) const;
    void replace_locks(std::vector<Lock> locks);
    void find_older_files(const Family &family);
    static void unlock(std::vector<Lock> &locks);

    Claims protected_;
    std::vector<Family> families_; // of the session
    Claims session_;
    std::vector<Lock> locks_;
    std::vector<std::string> older_files_;
};

} // namespace replay
