#pragma once

#include "CorvexSession/SessionCore.h"

namespace corvex {

// Panes as real programs on pseudo-terminals in this process.
class LocalPaneHost : public PaneHost {
public:
    std::shared_ptr<PaneProcess> spawn(const PaneLaunch& launch, PaneProcessEvents events) override;
};

} // namespace corvex
