#include "Corvex/SplitLayoutView.h"

#include <QMouseEvent>
#include <QPainter>
#include <cmath>

#include "Corvex/PaneHostView.h"

namespace corvex {

namespace {

QRect toQRect(const Rect& rect) {
    return QRect(static_cast<int>(std::lround(rect.x)), static_cast<int>(std::lround(rect.y)),
                 static_cast<int>(std::lround(rect.width)), static_cast<int>(std::lround(rect.height)));
}

} // namespace

DividerView::DividerView(QWidget* parent) : QWidget(parent) {
    setObjectName("divider");
}

void DividerView::setDivider(const DividerFrame& divider) {
    divider_ = divider;
    bool sideBySide = divider.axis == Axis::horizontal;
    setCursor(sideBySide ? Qt::SplitHCursor : Qt::SplitVCursor);
    // Grown across the divider only, by a few pixels on each side.
    QRect hit = toQRect(divider.rect);
    hit = sideBySide ? hit.adjusted(-grab, 0, grab, 0) : hit.adjusted(0, -grab, 0, grab);
    setGeometry(hit);
}

void DividerView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    QColor line = palette().color(QPalette::Mid);
    if (divider_.axis == Axis::horizontal) painter.fillRect(QRect(grab, 0, width() - 2 * grab, height()), line);
    else painter.fillRect(QRect(0, grab, width(), height() - 2 * grab), line);
}

double DividerView::ratioAt(QPointF point) const {
    QPointF inParent = mapToParent(point);
    double position = divider_.axis == Axis::horizontal ? inParent.x() : inParent.y();
    return Layout::ratio(position, divider_.container, divider_.axis, SplitLayoutView::dividerThickness);
}

void DividerView::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) return;
    dragging_ = true;
    lastRatio_ = ratioAt(event->position());
}

void DividerView::mouseMoveEvent(QMouseEvent* event) {
    if (!dragging_) return;
    lastRatio_ = ratioAt(event->position());
    if (onDrag) onDrag(lastRatio_);
}

void DividerView::mouseReleaseEvent(QMouseEvent* event) {
    if (!dragging_ || event->button() != Qt::LeftButton) return;
    dragging_ = false;
    lastRatio_ = ratioAt(event->position());
    if (onEnd) onEnd(lastRatio_);
}

SplitLayoutView::SplitLayoutView(QWidget* parent) : QWidget(parent) {
    setObjectName("splitView");
}

void SplitLayoutView::show(const std::optional<Layout>& layout, const std::map<uint64_t, PaneHostView*>& hosts,
                           std::optional<uint64_t> maximized) {
    if (!layout || !maximized || !layout->contains(*maximized)) maximized = std::nullopt;
    for (auto& [pane, host] : hosts_) {
        if (!hosts.count(pane) && host->parentWidget() == this) host->hide();
    }
    for (auto& [pane, host] : hosts) {
        if (host->parentWidget() != this) host->setParent(this);
    }
    bool changed = layout_ != layout || maximized_ != maximized || hosts_ != hosts;
    if (layout_ != layout) draggedRatios_.clear();
    layout_ = layout;
    maximized_ = maximized;
    hosts_ = hosts;
    if (changed) relayout();
}

void SplitLayoutView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    relayout();
}

void SplitLayoutView::relayout() {
    Rect bounds{0, 0, static_cast<double>(width()), static_cast<double>(height())};
    if (!layout_) {
        for (auto& [pane, host] : hosts_) host->hide();
        for (auto* divider : dividers_) divider->hide();
        return;
    }
    if (maximized_) {
        for (auto& [pane, host] : hosts_) {
            if (pane == *maximized_) {
                host->setGeometry(rect());
                host->show();
            } else {
                host->hide();
            }
        }
        for (auto* divider : dividers_) divider->hide();
        return;
    }
    Layout tree = *layout_;
    for (auto& [split, ratio] : draggedRatios_) {
        if (auto moved = tree.settingRatio(split, ratio)) tree = *moved;
    }
    LayoutFrames frames = tree.frames(bounds, dividerThickness);
    for (auto& [pane, host] : hosts_) {
        auto frame = frames.panes.find(pane);
        if (frame == frames.panes.end()) {
            host->hide();
            continue;
        }
        host->setGeometry(toQRect(frame->second));
        host->show();
    }
    while (dividers_.size() < frames.dividers.size()) {
        auto* divider = new DividerView(this);
        dividers_.push_back(divider);
    }
    for (size_t index = 0; index < dividers_.size(); ++index) {
        DividerView* view = dividers_[index];
        if (index >= frames.dividers.size()) {
            view->hide();
            continue;
        }
        const DividerFrame& frame = frames.dividers[index];
        view->setDivider(frame);
        uint64_t split = frame.split;
        view->onDrag = [this, split](double ratio) {
            draggedRatios_[split] = ratio;
            relayout();
        };
        view->onEnd = [this, split](double ratio) {
            // Kept until the daemon's layout comes back, so the divider doesn't jump meanwhile.
            draggedRatios_[split] = ratio;
            if (onRatioChange) onRatioChange(split, ratio);
        };
        view->show();
        view->raise();
    }
}

} // namespace corvex
