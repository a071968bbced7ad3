#pragma once
// SIGINT, SIGTERM and SIGHUP for the whole life of the tool: the first one cancels what runs (the
// algorithm through the host's cancellation, loading and writing at their next check) so that the
// run unwinds, removes its temporary files and exits 130; a second one removes them and exits at once.
#include "host/Algorithm.h"

namespace lyn {
namespace tool {

void installSignalHandlers();
bool signalled();

// While alive, a signal (even one that came before) cancels `algo`.
class CancelOnSignal {
public:
    explicit CancelOnSignal(BaseAlgorithm& algo);
    ~CancelOnSignal();
    CancelOnSignal(const CancelOnSignal&) = delete;
    CancelOnSignal& operator=(const CancelOnSignal&) = delete;
};

// While alive, `path` is removed by a second signal's immediate exit.
class TemporaryPath {
public:
    explicit TemporaryPath(const std::string& path);
    ~TemporaryPath();
    TemporaryPath(const TemporaryPath&) = delete;
    TemporaryPath& operator=(const TemporaryPath&) = delete;

private:
    int m_slot;
};

} // namespace tool

namespace io {
// Throws ExceptionCancelation once a signal has come; long reads and writes call it between chunks.
void checkInterrupt();
// For the tests only: with LYN_TEST_PAUSE_AT=PHASE[:SECONDS], waits once, SECONDS (default 30) at
// PHASE (load, compute, write, copy) after saying so on standard error, so that a test can act
// there (send a signal, create a file); a signal ends the wait.
void testPause(const char* phase);
} // namespace io
} // namespace lyn
