#include "Vellum/TerminalRenderOwner.h"

#include "Vellum/Terminal.h"

namespace vellum {

MainFrameEffects TerminalRenderOwner::prepareFrame() {
    TerminalRenderMailbox::State mail = mailbox_.take();
    if (mail.latestViewState) viewState_ = mail.latestViewState;
    MainFrameEffects effects;
    if (mail.pendingSize && (mail.pendingSize->first != terminal_.cols() || mail.pendingSize->second != terminal_.rows())) {
        terminal_.resize(mail.pendingSize->first, mail.pendingSize->second);
        effects.resizedTo = mail.pendingSize;
    }
    effects.rangeChanged = snapshot_.refresh(terminal_);
    effects.appearanceChanged = snapshot_.appearanceChanged();
    effects.notifyAccessibility = effects.rangeChanged.has_value() && !mail.suppressAccessibility;
    effects.blinkRows = std::move(mail.blinkRows);
    effects.scroller = mail.updateScroller;
    return effects;
}

} // namespace vellum
