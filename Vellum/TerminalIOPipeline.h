#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

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

// What the pipeline has done so far, so that its batching and back-pressure can be checked.
struct TerminalIOPipelineCounters {
    uint64_t bytesRead = 0;
    uint64_t reads = 0;
    uint64_t deliveries = 0;
    uint64_t pauses = 0; // times the ring was full and reading stopped until the parser caught up
};

// Reads a pseudo-terminal master without a thread of its own. The process-wide poller
// ("vellum-io-poller") reads whatever the child wrote into a ring of up to four 64 KiB slots,
// adding to the newest slot while the parser hasn't taken it, so a flood is gathered into
// large slots while a lone keystroke's echo goes on at once. A small shared pool of parse
// threads ("vellum-parse") hands the slots to the delegate, one turn at a time per pipeline,
// so each pipeline's bytes stay in order and a busy one can't keep the others waiting. When
// all four slots are full the pipeline stops reading and the kernel's buffer blocks the
// child: that is the back-pressure. Slots are allocated as they fill and freed once parsed,
// so an idle pipeline holds no buffer.
//
// The pipeline owns the descriptor and closes it once it has finished. The poller and the
// parse work hold only the worker, so a worker outliving its owner reads on into a cleared
// sink until it is shut down.
class TerminalIOPipeline : public std::enable_shared_from_this<TerminalIOPipeline> {
public:
    using Deadline = std::chrono::steady_clock::time_point;
    static constexpr size_t slotCount = 4;
    static constexpr size_t slotSize = 65536;

    static std::shared_ptr<TerminalIOPipeline> create(int fd, std::weak_ptr<TerminalIOPipelineDelegate> delegate);
    // Requests shutdown; reading and parsing end on their own.
    ~TerminalIOPipeline();

    TerminalIOPipeline(const TerminalIOPipeline&) = delete;
    TerminalIOPipeline& operator=(const TerminalIOPipeline&) = delete;

    // Once only. When the descriptor can't be watched, it is closed and EOF reported.
    void start();
    // Parse what is buffered and read on until end of file or the deadline, then stop.
    // False when called from the pipeline's own parse work, which then must not wait.
    bool requestDrain(Deadline deadline);
    // Stop soon, leaving unparsed bytes. False when called from the pipeline's own parse work.
    bool requestShutdown();
    // Stop reading, hand on every byte already read, then stop without reporting end of
    // file: what the child writes later stays in the kernel for whoever reads the master
    // next. False when called from the pipeline's own parse work.
    bool requestSettle();
    // Waits until reading and parsing have ended and the descriptor is closed, or the
    // deadline passed; true when they have.
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
