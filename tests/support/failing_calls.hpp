// Failures for a program that a test starts.
#pragma once

#include "failing_calls.h"

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace test {

// Programs that are started while the object exists fail as it says, while it says so.
class FailingCalls {
public:
    explicit FailingCalls(const std::string &path)
    {
        const int file = open(path.c_str(), O_RDWR | O_CREAT, 0600);
        (void)!ftruncate(file, sizeof(failing_calls));
        control = static_cast<failing_calls *>(
            mmap(nullptr, sizeof(failing_calls), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        close(file);
        setenv("FAILING_CALLS", path.c_str(), 1);
        setenv("LD_PRELOAD", FAILING_CALLS_LIBRARY, 1);
    }
    FailingCalls(const FailingCalls &) = delete;
    ~FailingCalls()
    {
        unsetenv("LD_PRELOAD");
        unsetenv("FAILING_CALLS");
        munmap(control, sizeof(failing_calls));
    }

    failing_calls *operator->() const { return control; }

private:
    failing_calls *control;
};

} // namespace test
