#include "conformance/run.hpp"

#include <csignal>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::conformance {

Progress *progress;
const char *loopback_address;
uint32_t timeout_seconds = 30;

namespace {

const char *meaning_of(int signal)
{
    switch (signal) {
    case SIGSEGV:
    case SIGBUS:
        return "memory that is not accessible was read or written";
    case SIGALRM:
        return "did not come back in time";
    case SIGABRT:
        return "the C library found the heap damaged, or the port gave up";
    default:
        return "the process was ended";
    }
}

// exit(), so that a loopback can remove what it put into the file system.
[[noreturn]] void run_here(Outcome (*check)())
{
    const rlimit no_core{0, 0};
    (void)setrlimit(RLIMIT_CORE, &no_core);
    (void)alarm(timeout_seconds);
    progress->outcome = check();
    progress->is_complete = 1;
    std::exit(0);
}

} // namespace

bool prepare_runs()
{
    void *const shared = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        return false;
    progress = static_cast<Progress *>(shared);
    return true;
}

Outcome run(Outcome (*check)())
{
    std::memset(progress, 0, sizeof *progress);
    (void)std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        return unchecked("no process could be started");
    if (child == 0)
        run_here(check);
    int status = 0;
    (void)waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        return broken("%s: %s (signal %d)", progress->doing, meaning_of(WTERMSIG(status)), WTERMSIG(status));
    if (WEXITSTATUS(status) != 0 || progress->is_complete == 0)
        return broken("%s: the process ended with code %d", progress->doing, WEXITSTATUS(status));
    return progress->outcome;
}

} // namespace zel::conformance
