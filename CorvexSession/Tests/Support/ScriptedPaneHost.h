#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "CorvexSession/SessionCore.h"

namespace corvex::testing {

// Panes whose program the test plays: it sees what was written and sends output and ends.
class ScriptedPaneHost : public PaneHost {
public:
    struct Process : PaneProcess {
        PaneLaunch launch;
        PaneProcessEvents events;
        std::mutex mutex;
        Bytes written;
        std::vector<Size> resizes;
        bool hungUp = false;

        std::optional<int32_t> pid() const override { return static_cast<int32_t>(1000 + launch.pane); }
        void write(ByteView bytes) override;
        void resize(Size size) override;
        void hangUp() override;
        std::optional<std::string> workingDirectory() const override { return std::nullopt; }
    };

    std::shared_ptr<PaneProcess> spawn(const PaneLaunch& launch, PaneProcessEvents events) override;

    std::shared_ptr<Process> process(uint64_t pane);
    bool failNext = false;

private:
    std::mutex mutex_;
    std::map<uint64_t, std::shared_ptr<Process>> processes_;
};

} // namespace corvex::testing
