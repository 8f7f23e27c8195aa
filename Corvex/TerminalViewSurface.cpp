// The terminal view's side of the GPU path: what the surface draws each frame, and the way
// back to the view's own painting.
#include <QFontInfo>

#include "Corvex/TerminalGLSurface.h"
#include "Corvex/TerminalView.h"
#include "Vellum/RenderLog.h"

namespace corvex {

// While the surface draws the view, the view's own area is never painted: asking for it would
// only make the window upload its backing store again each frame.
void TerminalView::update() {
    if (!glSurface_) return QWidget::update();
    glSurface_->update();
    frameClock_->frameRequested();
}

void TerminalView::update(const QRect& area) {
    if (!glSurface_) return QWidget::update(area);
    glSurface_->update();
    frameClock_->frameRequested();
}

void TerminalView::attachGLSurface() {
    if (!TerminalGLSurface::enabledByEnvironment()) return;
    QString reason;
    if (!TerminalGLSurface::contextAvailable(&reason)) {
        vellum::renderLog(("Vellum: Metal renderer rebind failed; falling back to CoreGraphics: " + reason).toStdString());
        return;
    }
    glSurface_ = new TerminalGLSurface(this, [this] {
        TerminalSurfaceFrame frame;
        frame.snapshot = &snapshot_;
        const vellum::TerminalRenderSnapshot& state = snapshot_.state();
        frame.overlay.cursorFocused = hasFocus();
        frame.overlay.cursorShown = !state.cursor.hidden && cursorShownNow();
        if (auto selected = selection_.range()) {
            int top = historyTopRow();
            frame.overlay.selection = std::pair{vellum::FrameOverlay::Point{selected->start.col, selected->start.row - top},
                                                vellum::FrameOverlay::Point{selected->end.col, selected->end.row - top}};
        }
        frame.overlay.preedit = preedit_.toStdString();
        const QFont& font = painter_.font();
        frame.fontFamily = font.family();
        frame.pixelSize = font.pixelSize() > 0 ? font.pixelSize() : font.pointSizeF() * logicalDpiY() / 72.0;
        frame.cell = cellSize();
        return frame;
    });
    connect(glSurface_, &QOpenGLWidget::frameSwapped, frameClock_.get(), &TerminalViewFrameClock::frameSwapped);
    glSurface_->onPaintStarted = [clock = frameClock_.get()] { clock->framePaintStarted(); };
    glSurface_->onFailure = [this](const QString&) {
        glSurface_->deleteLater();
        glSurface_ = nullptr;
    };
    glSurface_->show();
}

} // namespace corvex
