#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "Platform/Locked.h"

namespace vellum {

class TerminalIOPipeline;

// Receives what the pipeline reads, on its parse thread ("vellum-parse").
class TerminalIOPipelineDelegate {
public:
    virtual ~TerminalIOPipelineDelegate() = default;
    // The bytes point into the pipeline's ring and are valid only during the call.
    virtual void pipelineReceived(TerminalIOPipeline& pipeline, std::span<const unsigned char> bytes) = 0;
    virtual void pipelineReachedEOF(TerminalIOPipeline& pipeline) = 0;
};

// Why the gather thread handed a slot on; counted so that the coalescing can be checked.
struct TerminalIOPipelineCounters {
    uint64_t immediatePublishes = 0; // a short read with nothing to wait for: echo
    uint64_t coalescedPublishes = 0; // after a nap or a wait for the parser
    uint64_t fullSlotPublishes = 0;
    uint64_t naps = 0;
    uint64_t bridgePolls = 0;
    uint64_t bytesRead = 0;
};

// Reads a pseudo-terminal master on two threads. The gather thread ("vellum-io-gather")
// reads as fast as the child writes into a ring of four 64 KiB slots; the parse thread
// ("vellum-parse") hands each filled slot to the delegate. A lone keystroke's echo goes on
// at once, a flood is gathered into large slots. When all four slots are full the gather
// thread stops reading and the kernel's buffer blocks the child: that is the backpressure.
//
// The pipeline owns the descriptor and closes it once both threads have ended. Its threads
// hold only the worker, so a worker outliving its owner reads on into a cleared sink.
class TerminalIOPipeline : public std::enable_shared_from_this<TerminalIOPipeline> {
public:
    using Deadline = std::chrono::steady_clock::time_point;
    static constexpr size_t slotCount = 4;
    static constexpr size_t slotSize = 65536;

    static std::shared_ptr<TerminalIOPipeline> create(int fd, std::weak_ptr<TerminalIOPipelineDelegate> delegate);
    // Requests shutdown; the threads end on their own.
    ~TerminalIOPipeline();

    TerminalIOPipeline(const TerminalIOPipeline&) = delete;
    TerminalIOPipeline& operator=(const TerminalIOPipeline&) = delete;

    // Once only. When the threads can't run, the descriptor is closed and EOF reported.
    void start();
    // Parse what is buffered and read on until end of file or the deadline, then stop.
    // False when called from one of the pipeline's own threads.
    bool requestDrain(Deadline deadline);
    // Stop soon, leaving unparsed bytes. False when called from the pipeline's own threads.
    bool requestShutdown();
    // Stop reading, hand on every byte already read, then stop without reporting end of
    // file: what the child writes later stays in the kernel for whoever reads the master
    // next. False when called from the pipeline's own threads.
    bool requestSettle();
    // Waits until both threads have ended and the descriptors are closed, or the deadline
    // passed; true when they have.
    bool waitUntilFinished(std::optional<Deadline> deadline = std::nullopt);
    // Later data and end of file go nowhere.
    void detachSink();

    TerminalIOPipelineCounters counters() const;
    size_t filledSlots() const;

    struct Worker;

private:
    explicit TerminalIOPipeline(std::shared_ptr<Worker> worker);
    std::shared_ptr<Worker> worker_;
};

} // namespace vellum
