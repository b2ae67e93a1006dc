// Preloaded library: makes the k-th open, read, write or close of a process fail, of files below one folder.
//
// The calls are caught where they enter the kernel, so that it makes no difference whether the program, the standard
// streams or another library makes them. Configuration, from the environment:
//   FAIL_BELOW    folder; calls on other files are neither counted nor failed
//   FAIL_CALL     open, read, write or close
//   FAIL_AT       number of the call that fails, from 1; 0: none, calls are only counted
//   FAIL_HOW      error number, or "short": a read or write takes half of what it is given, and succeeds
//   FAIL_FOR_EVER when set, all later calls of that kind fail too
//   FAIL_LOG      file that receives the number of calls, and the path of the first that failed, when the process exits
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>

// Unused sixth argument of our own calls, which lets them pass.
#define PASS 0x51544641

static struct {
    const char *below;
    const char *log_file;
    long call; // number of the system call; opens and reads have two
    long at;
    long error; // 0: half of a read or write
    int for_ever;
    long seen;
    char failed[4096]; // path of the first that failed
} plan;

static long pass(long number, long a, long b, long c, long d)
{
    register long fourth __asm__("r10") = d;
    register long fifth __asm__("r8") = 0;
    register long sixth __asm__("r9") = PASS;
    long result;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(a), "S"(b), "d"(c), "r"(fourth), "r"(fifth), "r"(sixth)
                     : "rcx", "r11", "memory");
    return result;
}

static int is_below(const char *path)
{
    return strncmp(path, plan.below, strlen(plan.below)) == 0;
}

static void path_of_descriptor(long descriptor, char *path, size_t size)
{
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%ld", descriptor);
    const long length = pass(SYS_readlink, (long)link, (long)path, (long)size - 1, 0);
    path[length > 0 ? length : 0] = '\0';
}

static int is_due(const char *path)
{
    if (!is_below(path))
        return 0;
    ++plan.seen;
    if (plan.at == 0 || plan.seen < plan.at || (plan.seen > plan.at && !plan.for_ever))
        return 0;
    if (*plan.failed == '\0')
        strcpy(plan.failed, path);
    return 1;
}

static int call_fails(long number, long a, long b)
{
    char path[4096];
    if ((number == SYS_open || number == SYS_openat) && plan.call == SYS_openat)
        return is_due((const char *)(number == SYS_open ? a : b));
    if ((number == SYS_pread64 ? SYS_read : number) != plan.call)
        return 0;
    path_of_descriptor(a, path, sizeof path);
    return is_due(path);
}

static void on_call(int signal, siginfo_t *info, void *context)
{
    (void)signal;
    greg_t *registers = ((ucontext_t *)context)->uc_mcontext.gregs;
    const long number = info->si_syscall;
    const long a = registers[REG_RDI], b = registers[REG_RSI], d = registers[REG_R10];
    long c = registers[REG_RDX];
    const int fails = call_fails(number, a, b);
    if (fails && plan.error == 0)
        c = c > 1 ? c / 2 : c;
    if (!fails || plan.error == 0 || number == SYS_close)
        registers[REG_RAX] = pass(number, a, b, c, d); // a failing close closes all the same
    if (fails && plan.error != 0)
        registers[REG_RAX] = -plan.error;
}

static int catch_calls(void)
{
    struct sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[5])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PASS, 7, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 6, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_open, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_read, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pread64, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
    };
    const struct sock_fprog program = {sizeof code / sizeof *code, code};
    struct sigaction action = {.sa_sigaction = on_call, .sa_flags = SA_SIGINFO | SA_NODEFER};
    return sigaction(SIGSYS, &action, NULL) || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) ||
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

// Threads that block all signals would be killed by a caught call.
int pthread_sigmask(int how, const sigset_t *set, sigset_t *before)
{
    sigset_t without;
    if (set) {
        without = *set;
        sigdelset(&without, SIGSYS);
    }
    return sigprocmask(how, set ? &without : NULL, before) == 0 ? 0 : errno;
}

static const char *setting(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

__attribute__((constructor)) static void begin(void)
{
    const char *call = setting("FAIL_CALL");
    plan.below = setting("FAIL_BELOW");
    plan.log_file = setting("FAIL_LOG");
    plan.call = strcmp(call, "open") == 0    ? SYS_openat
                : strcmp(call, "read") == 0  ? SYS_read
                : strcmp(call, "write") == 0 ? SYS_write
                                             : SYS_close;
    plan.at = strtol(setting("FAIL_AT"), NULL, 10);
    plan.error = strtol(setting("FAIL_HOW"), NULL, 10); // "short" is 0
    plan.for_ever = *setting("FAIL_FOR_EVER") != '\0';
    if (*plan.below != '\0' && catch_calls()) {
        perror("fail_disk");
        abort();
    }
}

__attribute__((destructor)) static void end(void)
{
    if (*plan.log_file == '\0')
        return;
    char text[4200];
    const int length = snprintf(text, sizeof text, "%ld\n%s\n", plan.seen, plan.failed);
    const long file = pass(SYS_open, (long)plan.log_file, O_WRONLY | O_CREAT | O_TRUNC, 0666, 0);
    pass(SYS_write, file, (long)text, length, 0);
    pass(SYS_close, file, 0, 0, 0);
}
