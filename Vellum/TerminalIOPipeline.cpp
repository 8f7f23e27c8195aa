#include "Vellum/TerminalIOPipeline.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "Platform/SerialQueue.h"

namespace vellum {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr size_t floodThreshold = 1024;
constexpr int readRetries = 16;
constexpr nanoseconds bridgeBudget{2'999'999};
constexpr nanoseconds burstGap = milliseconds(5);
constexpr nanoseconds napWindow = milliseconds(1);
constexpr nanoseconds napAfterBurstStart = milliseconds(2);
constexpr nanoseconds backOff = milliseconds(10);
constexpr timespec napLength{0, 500'000};

// Set on both threads of a worker, so that a drain or shutdown from inside doesn't wait
// for itself.
thread_local const void* currentWorker = nullptr;

struct SinkState {
    std::weak_ptr<TerminalIOPipelineDelegate> delegate;
    std::weak_ptr<TerminalIOPipeline> pipeline;
};

} // namespace

struct TerminalIOPipeline::Worker : std::enable_shared_from_this<Worker> {
    enum class RunPhase { streaming, draining, quitting };
    enum class PublishReason { immediate, coalesced, fullSlot };

    platform::Locked<SinkState> sink;
    int fd;
    int controlReadFd = -1, controlWriteFd = -1;
    int idleReadFd = -1, idleWriteFd = -1;
    std::vector<unsigned char> storage = std::vector<unsigned char>(slotCount * slotSize);

    mutable std::mutex mutex;
    std::condition_variable condition;
    std::array<size_t, slotCount> lens{};
    size_t head = 0, tail = 0, count = 0;
    bool bridging = false;
    bool done = false;
    bool settling = false; // stop reading, but parse what was read
    RunPhase runPhase = RunPhase::streaming;
    Deadline deadline{};
    int remainingThreads = 0;
    bool descriptorsClosed = false, started = false, wakePipesReady = false;
    TerminalIOPipelineCounters counters;

    Worker(int masterFd, std::weak_ptr<TerminalIOPipelineDelegate> delegate) : fd(masterFd) {
        sink.set(SinkState{std::move(delegate), {}});
        wakePipesReady = makePipe(controlReadFd, controlWriteFd) && makePipe(idleReadFd, idleWriteFd);
    }
    ~Worker() { closeDescriptorsIfNeeded(); }

    static bool makePipe(int& readEnd, int& writeEnd) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return false;
        readEnd = ends[0];
        writeEnd = ends[1];
        return true;
    }

    void closeDescriptorsIfNeeded() {
        std::lock_guard guard(mutex);
        closeDescriptorsLocked();
    }
    void closeDescriptorsLocked() {
        if (descriptorsClosed) return;
        descriptorsClosed = true;
        for (int* descriptor : {&fd, &controlReadFd, &controlWriteFd, &idleReadFd, &idleWriteFd}) {
            if (*descriptor >= 0) ::close(*descriptor);
            *descriptor = -1;
        }
        condition.notify_all();
    }

    void wakeLocked() {
        char byte = 1;
        if (controlWriteFd >= 0) (void)!::write(controlWriteFd, &byte, 1);
        condition.notify_all();
    }
    void notifyLocked() {
        // The gather thread, the parse thread and finish waiters share the condition.
        condition.notify_all();
    }

    bool pastDeadlineLocked() const { return runPhase == RunPhase::draining && Clock::now() >= deadline; }
    bool pastDeadline() const {
        std::lock_guard guard(mutex);
        return pastDeadlineLocked();
    }
    bool stopReading() const {
        std::lock_guard guard(mutex);
        return pastDeadlineLocked() || settling;
    }
    bool quitting() const {
        std::lock_guard guard(mutex);
        return runPhase == RunPhase::quitting;
    }

    void deliver(std::span<const unsigned char> bytes) {
        auto state = sink.copy();
        auto delegate = state.delegate.lock();
        auto pipeline = state.pipeline.lock();
        if (delegate && pipeline) delegate->pipelineReceived(*pipeline, bytes);
    }
    void deliverEOF() {
        auto state = sink.copy();
        auto delegate = state.delegate.lock();
        auto pipeline = state.pipeline.lock();
        if (delegate && pipeline) delegate->pipelineReachedEOF(*pipeline);
    }

    void endThread() {
        std::lock_guard guard(mutex);
        if (--remainingThreads == 0) closeDescriptorsLocked();
        condition.notify_all();
    }

    void publish(size_t slot, size_t length, PublishReason reason) {
        std::lock_guard guard(mutex);
        lens[slot] = length;
        tail = (tail + 1) % slotCount;
        ++count;
        counters.bytesRead += length;
        switch (reason) {
        case PublishReason::immediate: ++counters.immediatePublishes; break;
        case PublishReason::coalesced: ++counters.coalescedPublishes; break;
        case PublishReason::fullSlot: ++counters.fullSlotPublishes; break;
        }
        notifyLocked();
    }

    void release(size_t slot) {
        bool ranDry;
        {
            std::lock_guard guard(mutex);
            lens[slot] = 0;
            head = (head + 1) % slotCount;
            --count;
            ranDry = count == 0 && bridging && idleWriteFd >= 0;
            notifyLocked();
            if (ranDry) {
                char byte = 1;
                (void)!::write(idleWriteFd, &byte, 1);
            }
        }
    }

    // Waits for the master (or the control pipe) to become readable. False when the thread
    // should end: shutdown, a passed drain deadline, or a failed poll.
    bool waitReadable() {
        for (;;) {
            int timeout = -1;
            {
                std::lock_guard guard(mutex);
                if (runPhase == RunPhase::quitting || pastDeadlineLocked() || settling) return false;
                if (runPhase == RunPhase::draining) {
                    auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
                    timeout = static_cast<int>(left);
                }
            }
            pollfd entries[2] = {{fd, POLLIN, 0}, {controlReadFd, POLLIN, 0}};
            int ready = poll(entries, 2, timeout);
            if (ready < 0 && errno == EINTR) continue;
            if (ready < 0) return false;
            if (ready == 0) continue;
            if (entries[1].revents) consumeWakeBytes(controlReadFd);
            if (entries[0].revents) return true;
        }
    }

    static void consumeWakeBytes(int descriptor) {
        char bytes[16];
        while (::read(descriptor, bytes, sizeof(bytes)) > 0) {
        }
    }

    // A short poll on the master while the parser still works on earlier slots, so that a
    // flood is gathered rather than handed on in slivers.
    void bridge() {
        {
            std::lock_guard guard(mutex);
            bridging = true;
            ++counters.bridgePolls;
        }
        pollfd entries[3] = {{fd, POLLIN, 0}, {controlReadFd, POLLIN, 0}, {idleReadFd, POLLIN, 0}};
        int ready = poll(entries, 3, 1);
        if (ready > 0) {
            if (entries[1].revents) consumeWakeBytes(controlReadFd);
            if (entries[2].revents) consumeWakeBytes(idleReadFd);
        }
        std::lock_guard guard(mutex);
        bridging = false;
    }

    void gather() {
        platform::setCurrentThreadName("vellum-io-gather");
        currentWorker = this;
        std::optional<Clock::time_point> previousRoundStart;
        Clock::time_point burstStart{}, pausedUntil{};
        int streak = 0;
        bool finished = false;
        while (!finished) {
            size_t slot;
            {
                std::unique_lock guard(mutex);
                while (runPhase != RunPhase::quitting && count == slotCount && !pastDeadlineLocked() && !settling) {
                    if (runPhase == RunPhase::draining) condition.wait_until(guard, deadline);
                    else condition.wait(guard);
                }
                if (runPhase == RunPhase::quitting || pastDeadlineLocked() || settling) break;
                slot = tail;
            }
            auto roundStart = Clock::now();
            if (!previousRoundStart || roundStart - *previousRoundStart >= burstGap) {
                pausedUntil = {};
                streak = 0;
                burstStart = roundStart;
            }
            previousRoundStart = roundStart;
            finished = fillSlot(slot, roundStart, burstStart, pausedUntil, streak);
        }
        {
            std::lock_guard guard(mutex);
            done = true;
            condition.notify_all();
        }
        endThread();
    }

    // One round: fills the slot and publishes it. True when the thread should end.
    bool fillSlot(size_t slot, Clock::time_point roundStart, Clock::time_point burstStart,
                  Clock::time_point& pausedUntil, int& streak) {
        unsigned char* base = storage.data() + slot * slotSize;
        size_t length = 0;
        size_t napMark = 0;
        bool napped = false;
        int retries = 0;
        std::optional<Clock::time_point> firstBridge;
        bool firstRead = true;
        for (;;) {
            if (!firstRead && stopReading()) return endWith(slot, length, PublishReason::immediate);
            firstRead = false;
            ssize_t n = ::read(fd, base + length, slotSize - length);
            if (n > 0) {
                length += static_cast<size_t>(n);
                if (length == slotSize) return publishAndContinue(slot, length, PublishReason::fullSlot);
                continue;
            }
            if (n == 0) return endWith(slot, length, PublishReason::immediate);
            if (errno == EINTR) continue;
            // EIO is what a master reads once the last holder of the other side has gone.
            if (errno != EAGAIN) return endWith(slot, length, PublishReason::immediate);

            if (length == 0) {
                if (!waitReadable()) return true;
                continue;
            }
            if (length < floodThreshold) return publishAndContinue(slot, length, PublishReason::immediate);
            if (napped) return afterNap(slot, length, napMark, pausedUntil, streak);
            if (retries < readRetries) {
                ++retries;
                continue;
            }
            auto now = Clock::now();
            if (length > napMark && now >= pausedUntil && now - roundStart < napWindow &&
                now - burstStart >= napAfterBurstStart) {
                napMark = length;
                napped = true;
                {
                    std::lock_guard guard(mutex);
                    ++counters.naps;
                }
                nanosleep(&napLength, nullptr);
                continue;
            }
            bool parserIdle;
            {
                std::lock_guard guard(mutex);
                parserIdle = count == 0;
                if (runPhase == RunPhase::quitting) return true;
            }
            if (parserIdle) return publishAndContinue(slot, length, PublishReason::immediate);
            if (!firstBridge) firstBridge = now;
            if (now - *firstBridge > bridgeBudget) return publishAndContinue(slot, length, PublishReason::coalesced);
            bridge();
        }
    }

    bool afterNap(size_t slot, size_t length, size_t napMark, Clock::time_point& pausedUntil, int& streak) {
        if (length - napMark < floodThreshold) {
            streak = 0;
        } else if (++streak > 1) {
            streak = 0;
            pausedUntil = Clock::now() + backOff;
        }
        return publishAndContinue(slot, length, PublishReason::coalesced);
    }

    bool publishAndContinue(size_t slot, size_t length, PublishReason reason) {
        publish(slot, length, reason);
        return false;
    }
    bool endWith(size_t slot, size_t length, PublishReason reason) {
        if (length > 0) publish(slot, length, reason);
        return true;
    }

    void parse() {
        platform::setCurrentThreadName("vellum-parse");
        currentWorker = this;
        bool reportEOF = false;
        for (;;) {
            size_t slot, length;
            {
                std::unique_lock guard(mutex);
                while (count == 0 && runPhase != RunPhase::quitting) {
                    if (done) break;
                    if (runPhase == RunPhase::draining) {
                        if (Clock::now() >= deadline) break;
                        condition.wait_until(guard, deadline);
                    } else {
                        condition.wait(guard);
                    }
                }
                if (runPhase == RunPhase::quitting || pastDeadlineLocked()) break;
                if (count == 0) {
                    reportEOF = done && !settling;
                    break;
                }
                slot = head;
                length = lens[slot];
            }
            deliver(std::span<const unsigned char>(storage.data() + slot * slotSize, length));
            release(slot);
        }
        if (reportEOF) deliverEOF();
        endThread();
    }
};

std::shared_ptr<TerminalIOPipeline> TerminalIOPipeline::create(int fd,
                                                               std::weak_ptr<TerminalIOPipelineDelegate> delegate) {
    auto worker = std::make_shared<Worker>(fd, std::move(delegate));
    auto pipeline = std::shared_ptr<TerminalIOPipeline>(new TerminalIOPipeline(worker));
    worker->sink.withLock([&](SinkState& state) { state.pipeline = pipeline; });
    return pipeline;
}

TerminalIOPipeline::TerminalIOPipeline(std::shared_ptr<Worker> worker) : worker_(std::move(worker)) {}

TerminalIOPipeline::~TerminalIOPipeline() { requestShutdown(); }

void TerminalIOPipeline::start() {
    bool usable;
    {
        std::lock_guard guard(worker_->mutex);
        if (worker_->started) return;
        worker_->started = true;
        worker_->remainingThreads = 2;
        int flags = worker_->fd >= 0 ? fcntl(worker_->fd, F_GETFL) : -1;
        usable = worker_->wakePipesReady && flags >= 0 && fcntl(worker_->fd, F_SETFL, flags | O_NONBLOCK) == 0;
    }
    if (usable) {
        try {
            std::thread gather([worker = worker_] { worker->gather(); });
            try {
                std::thread parse([worker = worker_] { worker->parse(); });
                parse.detach();
            } catch (const std::system_error&) {
                // The gather thread alone can't deliver; end it and count the missing thread.
                std::lock_guard guard(worker_->mutex);
                worker_->runPhase = Worker::RunPhase::quitting;
                worker_->wakeLocked();
                --worker_->remainingThreads;
            }
            gather.detach();
            return;
        } catch (const std::system_error&) {
        }
    }
    {
        std::lock_guard guard(worker_->mutex);
        worker_->done = true;
        worker_->remainingThreads = 0;
        worker_->closeDescriptorsLocked();
    }
    worker_->deliverEOF();
}

bool TerminalIOPipeline::requestDrain(Deadline deadline) {
    std::lock_guard guard(worker_->mutex);
    if (worker_->runPhase == Worker::RunPhase::streaming) {
        worker_->runPhase = Worker::RunPhase::draining;
        worker_->deadline = deadline;
    }
    worker_->wakeLocked();
    if (!worker_->started) {
        worker_->done = true;
        worker_->closeDescriptorsLocked();
    }
    return currentWorker != worker_.get();
}

bool TerminalIOPipeline::requestShutdown() {
    std::lock_guard guard(worker_->mutex);
    worker_->runPhase = Worker::RunPhase::quitting;
    worker_->wakeLocked();
    if (!worker_->started) worker_->closeDescriptorsLocked();
    return currentWorker != worker_.get();
}

bool TerminalIOPipeline::requestSettle() {
    std::lock_guard guard(worker_->mutex);
    worker_->settling = true;
    worker_->wakeLocked();
    if (!worker_->started) worker_->closeDescriptorsLocked();
    return currentWorker != worker_.get();
}

bool TerminalIOPipeline::waitUntilFinished(std::optional<Deadline> deadline) {
    std::unique_lock guard(worker_->mutex);
    auto finished = [&] { return worker_->descriptorsClosed && worker_->remainingThreads == 0; };
    if (!deadline) {
        worker_->condition.wait(guard, finished);
        return true;
    }
    return worker_->condition.wait_until(guard, *deadline, finished);
}

void TerminalIOPipeline::detachSink() {
    worker_->sink.withLock([](SinkState& state) { state = {}; });
}

TerminalIOPipelineCounters TerminalIOPipeline::counters() const {
    std::lock_guard guard(worker_->mutex);
    return worker_->counters;
}

size_t TerminalIOPipeline::filledSlots() const {
    std::lock_guard guard(worker_->mutex);
    return worker_->count;
}

} // namespace vellum
