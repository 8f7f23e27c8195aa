#pragma once

#include <QWidget>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "CorvexKit/Layout.h"

namespace corvex {

class PaneHostView;

// A divider between two panes, a few pixels wider than it is drawn so it is easy to grab.
class DividerView final : public QWidget {
    Q_OBJECT
public:
    explicit DividerView(QWidget* parent);

    void setDivider(const DividerFrame& divider);
    const DividerFrame& divider() const { return divider_; }

    std::function<void(double ratio)> onDrag;
    std::function<void(double ratio)> onEnd;

    static constexpr int grab = 3;

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    double ratioAt(QPointF point) const;

    DividerFrame divider_;
    bool dragging_ = false;
    double lastRatio_ = 0.5;
};

// Places the hosts of the shown tab by the tab's layout, with draggable dividers. A drag
// changes nothing in the model until it ends.
class SplitLayoutView final : public QWidget {
    Q_OBJECT
public:
    explicit SplitLayoutView(QWidget* parent = nullptr);

    void show(const std::optional<Layout>& layout, const std::map<uint64_t, PaneHostView*>& hosts,
              std::optional<uint64_t> maximized);
    std::optional<uint64_t> maximized() const { return maximized_; }
    const std::vector<DividerView*>& dividers() const { return dividers_; }

    std::function<void(uint64_t split, double ratio)> onRatioChange;

    static constexpr double dividerThickness = 1;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void relayout();

    std::optional<Layout> layout_;
    std::optional<uint64_t> maximized_;
    std::map<uint64_t, PaneHostView*> hosts_;
    std::vector<DividerView*> dividers_;
    std::map<uint64_t, double> draggedRatios_;
};

} // namespace corvex
