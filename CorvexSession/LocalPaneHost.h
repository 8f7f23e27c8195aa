#pragma once

#include <functional>
#include <optional>
#include <sys/types.h>

#include "CorvexSession/SessionCore.h"

namespace platform {
class SerialQueue;
}

namespace corvex {

// A program running on a pseudo-terminal that another process started and is parent of: its
// process number, our own copy of the master, and how to learn its end.
struct HeldProgram {
    pid_t pid = 0;
    int master = -1;
    // Blocks until the holder says how the program ended (a raw wait status), or can't.
    std::function<std::optional<int>()> status;
    // Tells the holder that this pane is done with the program.
    std::function<void()> release;
};

// Where pane programs come from when something outside this process keeps them, so that
// they outlive it. Null results mean the program couldn't be started or isn't held.
class PaneProgramSource {
public:
    virtual ~PaneProgramSource() = default;
    virtual std::optional<HeldProgram> start(const PaneLaunch& launch) = 0;
    // The program a previous serving process ran for the pane.
    virtual std::optional<HeldProgram> take(uint64_t pane) = 0;
};

// Panes as real programs on pseudo-terminals, read in this process. Without a source this
// process starts them and they end with it; with one, the source holds them.
class LocalPaneHost : public PaneHost {
public:
    explicit LocalPaneHost(std::shared_ptr<PaneProgramSource> source = nullptr);
    std::shared_ptr<PaneProcess> spawn(const PaneLaunch& launch, PaneProcessEvents events) override;

private:
    std::shared_ptr<PaneProgramSource> source_;
    // Where every pane's end is told: one thread for all panes, not one each.
    std::shared_ptr<platform::SerialQueue> reports_;
};

} // namespace corvex
