// peak_memory COMMAND [ARGUMENT]...: runs a command without its output, and prints the most memory that it had (KiB), its
// processor time (milliseconds) and its exit code, or minus the number of the signal that ended it.
#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

extern char **environ;

static long milliseconds(const timeval &time)
{
    return time.tv_sec * 1000 + time.tv_usec / 1000;
}

int main(int argc, char **argv)
{
    posix_spawn_file_actions_t silence;
    posix_spawn_file_actions_init(&silence);
    posix_spawn_file_actions_addopen(&silence, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&silence, 2, "/dev/null", O_WRONLY, 0);
    pid_t process = 0;
    int status = 0;
    rusage used{};
    if (argc < 2 || posix_spawnp(&process, argv[1], &silence, nullptr, argv + 1, environ) != 0 ||
        wait4(process, &status, 0, &used) != process)
        return 1;
    posix_spawn_file_actions_destroy(&silence);
    std::printf("%ld %ld %d\n", used.ru_maxrss, milliseconds(used.ru_utime) + milliseconds(used.ru_stime),
                WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status));
    return 0;
}
