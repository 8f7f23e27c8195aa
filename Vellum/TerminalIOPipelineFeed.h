#pragma once

#include <functional>
#include <memory>
#include <span>

#include "Vellum/TerminalIOPipeline.h"
#include "Vellum/TerminalLock.h"

namespace vellum {

// What a pipeline's bytes are parsed into: a terminal, or anything that takes bytes.
class TerminalFeedTarget {
public:
    virtual ~TerminalFeedTarget() = default;
    // Called with the terminal lock held; the bytes are valid only during the call.
    virtual void feed(std::span<const unsigned char> bytes) = 0;
};

// The pipeline delegate that parses into a target under the terminal lock, on the parse
// thread. End of file is told outside the lock.
class TerminalIOPipelineFeed : public TerminalIOPipelineDelegate {
public:
    TerminalIOPipelineFeed(std::shared_ptr<TerminalLock> lock, std::weak_ptr<TerminalFeedTarget> target,
                           std::function<void()> onEOF = nullptr);

    void pipelineReceived(TerminalIOPipeline& pipeline, std::span<const unsigned char> bytes) override;
    void pipelineReachedEOF(TerminalIOPipeline& pipeline) override;

private:
    std::shared_ptr<TerminalLock> lock_;
    std::weak_ptr<TerminalFeedTarget> target_;
    std::function<void()> onEOF_;
};

} // namespace vellum
