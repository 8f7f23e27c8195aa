#include "Vellum/TerminalIOPipeline.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <sys/epoll.h>
#include <unistd.h>

#include "Platform/Locked.h"
#include "Platform/Poller.h"
#include "Platform/TimerThread.h"
#include "Platform/WorkerPool.h"

namespace vellum {

namespace {

using Clock = std::chrono::steady_clock;

// Parsing may wait on a terminal lock or on a consumer's room, so a few threads share it;
// never one per pipeline.
constexpr size_t parseThreads = 8;
// Slots parsed in one turn before the pipeline lets the others have the parse threads.
constexpr int slotsPerTurn = 4;

platform::WorkerPool& parsePool() {
    // Never destroyed: parse work may still be queued while the process exits.
    static auto* pool = new platform::WorkerPool(parseThreads, "vellum-parse");
    return *pool;
}

// Set while a worker's parse work runs, so that a drain or shutdown from inside doesn't
// wait for itself.
thread_local const void* currentWorker = nullptr;

struct SinkState {
    std::weak_ptr<TerminalIOPipelineDelegate> delegate;
    std::weak_ptr<TerminalIOPipeline> pipeline;
};

struct Slot {
    std::unique_ptr<unsigned char[]> bytes;
    size_t length = 0;
};

} // namespace

struct TerminalIOPipeline::Worker : std::enable_shared_from_this<Worker> {
    enum class RunPhase { streaming, draining, settling, quitting };

    platform::Locked<SinkState> sink;
    int fd;

    mutable std::mutex mutex;
    std::condition_variable condition;
    std::deque<Slot> filled;   // read and not yet parsed, oldest first
    bool parsingFront = false; // the parser has the oldest slot
    bool parseScheduled = false;
    platform::Poller::Token token = 0;
    bool watching = false;
    bool readPaused = false;
    bool endOfFile = false;
    bool started = false, finished = false;
    RunPhase runPhase = RunPhase::streaming;
    Deadline deadline{};
    TerminalIOPipelineCounters counters;

    Worker(int masterFd, std::weak_ptr<TerminalIOPipelineDelegate> delegate) : fd(masterFd) {
        sink.set(SinkState{std::move(delegate), {}});
    }
    ~Worker() {
        if (fd >= 0) ::close(fd);
    }

    bool pastDeadlineLocked() const { return runPhase == RunPhase::draining && Clock::now() >= deadline; }
    bool stopsReadingLocked() const {
        return runPhase == RunPhase::quitting || runPhase == RunPhase::settling || pastDeadlineLocked();
    }
    bool stopsParsingLocked() const { return runPhase == RunPhase::quitting || pastDeadlineLocked(); }

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

    // The descriptor is closed once nothing reads it and nothing is left to parse.
    void finishIfDoneLocked() {
        if (finished || watching || parseScheduled) return;
        finished = true;
        filled.clear();
        if (fd >= 0) ::close(fd);
        fd = -1;
        condition.notify_all();
    }

    // Stops reading. Off the poller thread this waits until the read handler isn't running,
    // so it must be called without the worker's lock.
    void unwatch() {
        platform::Poller::Token taken = 0;
        {
            std::lock_guard guard(mutex);
            if (!watching) return;
            watching = false;
            taken = token;
        }
        platform::Poller::shared().remove(taken);
        std::lock_guard guard(mutex);
        finishIfDoneLocked();
    }

    void scheduleParseLocked() {
        if (parseScheduled || finished) return;
        parseScheduled = true;
        parsePool().detach([self = shared_from_this()] { self->parseTurn(); });
    }

    // The slot new bytes go into: the newest one while the parser hasn't taken it and it
    // has room, else a new one while the ring has room.
    Slot* slotToFillLocked() {
        if (!filled.empty() && filled.back().length < slotSize && !(parsingFront && filled.size() == 1)) {
            return &filled.back();
        }
        if (filled.size() == slotCount) return nullptr;
        // Not zeroed: only the pages a read touches cost memory.
        filled.push_back(Slot{std::unique_ptr<unsigned char[]>(new unsigned char[slotSize]), 0});
        return &filled.back();
    }

    // On the poller thread. Reads at most one slot's worth per turn, so that every other
    // ready descriptor is read before a flood is read again.
    void readable() {
        std::unique_lock guard(mutex);
        if (!watching) return;
        if (stopsReadingLocked()) {
            watching = false;
            platform::Poller::shared().remove(token);
            finishIfDoneLocked();
            return;
        }
        size_t budget = slotSize;
        bool ended = false;
        while (budget > 0) {
            Slot* slot = slotToFillLocked();
            if (!slot) {
                readPaused = true;
                ++counters.pauses;
                platform::Poller::shared().modify(token, 0);
                break;
            }
            size_t room = std::min(slotSize - slot->length, budget);
            ssize_t count = ::read(fd, slot->bytes.get() + slot->length, room);
            if (count > 0) {
                slot->length += static_cast<size_t>(count);
                budget -= static_cast<size_t>(count);
                counters.bytesRead += static_cast<uint64_t>(count);
                ++counters.reads;
                continue;
            }
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && errno == EAGAIN) break;
            // EIO is what a master reads once the last holder of the other side has gone.
            ended = true;
            break;
        }
        if (!filled.empty() && filled.back().length == 0 && !(parsingFront && filled.size() == 1)) filled.pop_back();
        if (ended) {
            endOfFile = true;
            watching = false;
            platform::Poller::shared().remove(token);
        }
        if (!filled.empty() || ended) scheduleParseLocked();
        finishIfDoneLocked();
    }

    // On a parse thread: hands on a few slots in order, then makes room for other pipelines.
    void parseTurn() {
        currentWorker = this;
        for (int turn = 0;; ++turn) {
            Slot* slot = nullptr;
            bool reportEOF = false;
            {
                std::lock_guard guard(mutex);
                if (stopsParsingLocked() || (filled.empty() && (!endOfFile || runPhase == RunPhase::settling))) {
                    parseScheduled = false;
                    finishIfDoneLocked();
                    break;
                }
                if (turn == slotsPerTurn) {
                    parsePool().detach([self = shared_from_this()] { self->parseTurn(); });
                    break;
                }
                if (filled.empty()) {
                    reportEOF = true;
                    endOfFile = false; // told once
                } else {
                    parsingFront = true;
                    slot = &filled.front();
                    ++counters.deliveries;
                }
            }
            if (reportEOF) {
                deliverEOF();
                continue;
            }
            deliver(std::span<const unsigned char>(slot->bytes.get(), slot->length));
            std::lock_guard guard(mutex);
            filled.pop_front();
            parsingFront = false;
            if (readPaused && watching) {
                readPaused = false;
                platform::Poller::shared().modify(token, EPOLLIN);
            }
        }
        currentWorker = nullptr;
    }

    void armDeadline(Deadline at) {
        auto delay = std::max(Clock::duration::zero(), at - Clock::now());
        platform::TimerThread::shared().schedule(std::chrono::duration_cast<platform::Duration>(delay),
                                                 [weak = weak_from_this()] {
                                                     if (auto self = weak.lock()) self->unwatch();
                                                 });
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
    {
        std::lock_guard guard(worker_->mutex);
        if (worker_->started) return;
        worker_->started = true;
        int flags = worker_->fd >= 0 ? fcntl(worker_->fd, F_GETFL) : -1;
        if (flags >= 0 && fcntl(worker_->fd, F_SETFL, flags | O_NONBLOCK) == 0 && !worker_->stopsReadingLocked()) {
            worker_->token = platform::Poller::shared().add(worker_->fd, EPOLLIN,
                                                            [worker = worker_](uint32_t) { worker->readable(); });
            worker_->watching = worker_->token != 0;
        }
        if (worker_->watching) return;
        worker_->finishIfDoneLocked();
    }
    worker_->deliverEOF();
}

bool TerminalIOPipeline::requestDrain(Deadline deadline) {
    bool arm = false;
    {
        std::lock_guard guard(worker_->mutex);
        if (worker_->runPhase == Worker::RunPhase::streaming) {
            worker_->runPhase = Worker::RunPhase::draining;
            worker_->deadline = deadline;
            arm = worker_->watching || worker_->parseScheduled;
        }
        if (!worker_->started) {
            worker_->started = true;
            worker_->finishIfDoneLocked();
        }
    }
    if (arm) worker_->armDeadline(deadline);
    return currentWorker != worker_.get();
}

bool TerminalIOPipeline::requestShutdown() {
    {
        std::lock_guard guard(worker_->mutex);
        worker_->runPhase = Worker::RunPhase::quitting;
        if (!worker_->started) {
            worker_->started = true;
            worker_->finishIfDoneLocked();
        }
    }
    worker_->unwatch();
    return currentWorker != worker_.get();
}

bool TerminalIOPipeline::requestSettle() {
    {
        std::lock_guard guard(worker_->mutex);
        if (worker_->runPhase != Worker::RunPhase::quitting) worker_->runPhase = Worker::RunPhase::settling;
        if (!worker_->started) {
            worker_->started = true;
            worker_->finishIfDoneLocked();
        }
    }
    worker_->unwatch();
    return currentWorker != worker_.get();
}

bool TerminalIOPipeline::waitUntilFinished(std::optional<Deadline> deadline) {
    std::unique_lock guard(worker_->mutex);
    auto finished = [&] { return worker_->finished; };
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
    return worker_->filled.size();
}

} // namespace vellum
