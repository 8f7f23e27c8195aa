#pragma once

#include <QTabBar>
#include <QWidget>
#include <functional>
#include <vector>

#include "CorvexKit/WindowModel.h"

class QLineEdit;
class QToolButton;

namespace corvex {

// The focused workspace's tabs. Tabs are moved by dragging, renamed by a double click and
// closed by their button; changes go to the machine and come back as state.
class TabBarView final : public QWidget {
    Q_OBJECT
public:
    explicit TabBarView(QWidget* parent = nullptr);

    void update(const std::vector<TabBarItem>& items);
    QTabBar* bar() const { return bar_; }
    const std::vector<TabBarItem>& items() const { return items_; }
    void beginRename(int index);

    std::function<void(uint64_t tab)> onSelect;
    std::function<void(uint64_t tab)> onClose;
    std::function<void(uint64_t tab, int index)> onMove;
    std::function<void(uint64_t tab, const std::string& title)> onRename;
    std::function<void()> onNewTab;

private:
    void rebuild();

    QTabBar* bar_ = nullptr;
    QToolButton* add_ = nullptr;
    QLineEdit* editor_ = nullptr;
    std::vector<TabBarItem> items_;
    bool rebuilding_ = false;
};

} // namespace corvex
