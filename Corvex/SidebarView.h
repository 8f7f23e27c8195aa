#pragma once

#include <QTreeWidget>
#include <QWidget>
#include <functional>
#include <string>
#include <vector>

#include "CorvexKit/WindowModel.h"

class QPushButton;

namespace corvex {

// The sidebar's tree: machines, their workspaces and their tabs. Workspaces are reordered by
// dragging them within their machine.
class SidebarTree final : public QTreeWidget {
    Q_OBJECT
public:
    enum Role { kindRole = Qt::UserRole + 1, machineRole, idRole };
    enum Kind { machineRow = 1, workspaceRow, tabRow };

    explicit SidebarTree(QWidget* parent);

    std::function<void(const std::string& machine, uint64_t workspace, int index)> onMoveWorkspace;

protected:
    void dropEvent(QDropEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
};

class SidebarView final : public QWidget {
    Q_OBJECT
public:
    explicit SidebarView(QWidget* parent = nullptr);

    void update(const std::vector<SidebarGroup>& groups);
    SidebarTree* tree() const { return tree_; }
    // The row of a workspace or tab, for tests and for the keyboard.
    QTreeWidgetItem* item(SidebarTree::Kind kind, const std::string& machine, uint64_t id) const;
    void editItem(QTreeWidgetItem* item);

    std::function<void(const std::string& machine, uint64_t workspace)> onSelectWorkspace;
    std::function<void(const std::string& machine, uint64_t tab)> onSelectTab;
    std::function<void(const std::string& machine, uint64_t workspace, const std::string& name)> onRenameWorkspace;
    std::function<void(const std::string& machine, uint64_t tab, const std::string& title)> onRenameTab;
    std::function<void(const std::string& machine, uint64_t workspace)> onCloseWorkspace;
    std::function<void(const std::string& machine, uint64_t tab)> onCloseTab;
    std::function<void(const std::string& machine, uint64_t workspace, int index)> onMoveWorkspace;
    // An empty machine key means the machine shown.
    std::function<void(const std::string& machine)> onNewWorkspace;
    std::function<void(const std::string& machine, uint64_t workspace)> onNewTab;
    std::function<void()> onAddMachine;
    std::function<void(const std::string& machine)> onEditMachine;
    std::function<void(const std::string& machine)> onRemoveMachine;
    std::function<void(const std::string& machine)> onConnectMachine;
    std::function<void(const std::string& machine)> onDisconnectMachine;

private:
    void rebuild();
    void showMenu(const QPoint& at);
    void itemChanged(QTreeWidgetItem* item);
    void itemClicked(QTreeWidgetItem* item);

    SidebarTree* tree_ = nullptr;
    QPushButton* newWorkspace_ = nullptr;
    std::vector<SidebarGroup> groups_;
    bool rebuilding_ = false;
};

} // namespace corvex
