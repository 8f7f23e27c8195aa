#include "Vellum/TerminalIOPipelineFeed.h"

namespace vellum {

TerminalIOPipelineFeed::TerminalIOPipelineFeed(std::shared_ptr<TerminalLock> lock,
                                               std::weak_ptr<TerminalFeedTarget> target, std::function<void()> onEOF)
    : lock_(std::move(lock)), target_(std::move(target)), onEOF_(std::move(onEOF)) {}

void TerminalIOPipelineFeed::pipelineReceived(TerminalIOPipeline&, std::span<const unsigned char> bytes) {
    auto target = target_.lock();
    if (!target) return;
    TerminalLock::setCurrentThreadRole(TerminalLockRole::parse);
    lock_->withLock([&] { target->feed(bytes); });
}

void TerminalIOPipelineFeed::pipelineReachedEOF(TerminalIOPipeline&) {
    if (onEOF_) onEOF_();
}

} // namespace vellum
