#include "Corvex/SidebarView.h"

#include <QDropEvent>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QPushButton>
#include <QVBoxLayout>

#include "Corvex/Theme.h"

namespace corvex {

namespace {

int kindOf(const QTreeWidgetItem* item) {
    return item ? item->data(0, SidebarTree::kindRole).toInt() : 0;
}

std::string machineOf(const QTreeWidgetItem* item) {
    return item->data(0, SidebarTree::machineRole).toString().toStdString();
}

uint64_t idOf(const QTreeWidgetItem* item) {
    return item->data(0, SidebarTree::idRole).toULongLong();
}

} // namespace

SidebarTree::SidebarTree(QWidget* parent) : QTreeWidget(parent) {
    setHeaderHidden(true);
    setColumnCount(1);
    setDragDropMode(QAbstractItemView::InternalMove);
    setDragEnabled(true);
    setAcceptDrops(true);
    setDropIndicatorShown(true);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setEditTriggers(QAbstractItemView::EditKeyPressed);
    setUniformRowHeights(false);
    setIndentation(14);
}

void SidebarTree::dragMoveEvent(QDragMoveEvent* event) {
    QTreeWidget::dragMoveEvent(event);
    QTreeWidgetItem* dragged = currentItem();
    QTreeWidgetItem* target = itemAt(event->position().toPoint());
    while (target && kindOf(target) == tabRow) target = target->parent();
    bool sameMachine = dragged && target &&
                       (target == dragged->parent() || target->parent() == dragged->parent());
    if (kindOf(dragged) != workspaceRow || !sameMachine) event->ignore();
}

void SidebarTree::dropEvent(QDropEvent* event) {
    // The tree never moves its own rows: the move goes to the machine, and its new order comes
    // back as state.
    event->setDropAction(Qt::IgnoreAction);
    event->accept();
    QTreeWidgetItem* dragged = currentItem();
    if (kindOf(dragged) != workspaceRow) return;
    QTreeWidgetItem* group = dragged->parent();
    QTreeWidgetItem* target = itemAt(event->position().toPoint());
    while (target && kindOf(target) == tabRow) target = target->parent();
    int index = group->childCount() - 1;
    if (target == group) {
        index = 0;
    } else if (target && target->parent() == group) {
        index = group->indexOfChild(target);
        if (dropIndicatorPosition() == QAbstractItemView::BelowItem) ++index;
        if (group->indexOfChild(dragged) < index) --index;
    } else if (target) {
        return;
    }
    if (onMoveWorkspace) onMoveWorkspace(machineOf(dragged), idOf(dragged), std::max(index, 0));
}

SidebarView::SidebarView(QWidget* parent) : QWidget(parent) {
    setObjectName("sidebar");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    tree_ = new SidebarTree(this);
    tree_->setContextMenuPolicy(Qt::CustomContextMenu);
    // Only a click gives the sidebar the keyboard: a window that opens or comes back must
    // hand it to the focused pane, not to the first widget in the focus chain.
    tree_->setFocusPolicy(Qt::ClickFocus);
    newWorkspace_ = new QPushButton("New Workspace", this);
    newWorkspace_->setFocusPolicy(Qt::NoFocus);
    newWorkspace_->setObjectName("newWorkspace");
    newWorkspace_->setToolTip("New Workspace (Ctrl+Shift+N)");
    layout->addWidget(tree_, 1);
    layout->addWidget(newWorkspace_);

    connect(newWorkspace_, &QPushButton::clicked, this, [this] {
        if (onNewWorkspace) onNewWorkspace("");
    });
    connect(tree_, &QTreeWidget::itemClicked, this, [this](QTreeWidgetItem* item, int) { itemClicked(item); });
    connect(tree_, &QTreeWidget::itemChanged, this, [this](QTreeWidgetItem* item, int) { itemChanged(item); });
    connect(tree_, &QTreeWidget::customContextMenuRequested, this, &SidebarView::showMenu);
    tree_->onMoveWorkspace = [this](const std::string& machine, uint64_t workspace, int index) {
        if (onMoveWorkspace) onMoveWorkspace(machine, workspace, index);
    };
}

void SidebarView::update(const std::vector<SidebarGroup>& groups) {
    if (groups == groups_) return;
    groups_ = groups;
    rebuild();
}

void SidebarView::rebuild() {
    rebuilding_ = true;
    tree_->clear();
    for (const SidebarGroup& group : groups_) {
        auto* machine = new QTreeWidgetItem(tree_);
        QString text = QString::fromStdString(group.label);
        if (!group.status.text.empty()) text += "\n" + QString::fromStdString(group.status.text);
        machine->setText(0, text);
        machine->setIcon(0, theme::dot(theme::statusColor(group.status.dot)));
        machine->setData(0, SidebarTree::kindRole, SidebarTree::machineRow);
        machine->setData(0, SidebarTree::machineRole, QString::fromStdString(group.machine));
        machine->setFlags(Qt::ItemIsEnabled | Qt::ItemIsDropEnabled);
        QFont bold = machine->font(0);
        bold.setBold(true);
        machine->setFont(0, bold);
        std::string tip = group.status.toolTip.empty() ? group.status.text : group.status.toolTip;
        if (!tip.empty()) machine->setToolTip(0, QString::fromStdString(tip));
        if (!group.status.button.empty()) machine->setText(0, text + "  [" + QString::fromStdString(group.status.button) + "]");
        for (const SidebarWorkspace& workspace : group.workspaces) {
            auto* row = new QTreeWidgetItem(machine);
            row->setText(0, QString::fromStdString(workspace.name));
            row->setData(0, SidebarTree::kindRole, SidebarTree::workspaceRow);
            row->setData(0, SidebarTree::machineRole, QString::fromStdString(group.machine));
            row->setData(0, SidebarTree::idRole, QVariant::fromValue<qulonglong>(workspace.id));
            row->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsEditable | Qt::ItemIsDragEnabled |
                          Qt::ItemIsDropEnabled);
            if (workspace.badge) row->setIcon(0, theme::dot(theme::agentColor(*workspace.badge)));
            if (workspace.focused) tree_->setCurrentItem(row);
            for (const SidebarTab& tab : workspace.tabs) {
                auto* tabRow = new QTreeWidgetItem(row);
                tabRow->setText(0, QString::fromStdString(tab.title));
                tabRow->setData(0, SidebarTree::kindRole, SidebarTree::tabRow);
                tabRow->setData(0, SidebarTree::machineRole, QString::fromStdString(group.machine));
                tabRow->setData(0, SidebarTree::idRole, QVariant::fromValue<qulonglong>(tab.id));
                tabRow->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsEditable);
                if (tab.badge) tabRow->setIcon(0, theme::dot(theme::agentColor(*tab.badge)));
                if (tab.focused) tree_->setCurrentItem(tabRow);
            }
        }
    }
    tree_->expandAll();
    rebuilding_ = false;
}

QTreeWidgetItem* SidebarView::item(SidebarTree::Kind kind, const std::string& machine, uint64_t id) const {
    for (QTreeWidgetItemIterator it(tree_); *it; ++it) {
        QTreeWidgetItem* row = *it;
        if (kindOf(row) == kind && machineOf(row) == machine && (kind == SidebarTree::machineRow || idOf(row) == id))
            return row;
    }
    return nullptr;
}

void SidebarView::editItem(QTreeWidgetItem* item) {
    if (item) tree_->editItem(item, 0);
}

void SidebarView::itemClicked(QTreeWidgetItem* item) {
    switch (kindOf(item)) {
    case SidebarTree::workspaceRow:
        if (onSelectWorkspace) onSelectWorkspace(machineOf(item), idOf(item));
        break;
    case SidebarTree::tabRow:
        if (onSelectTab) onSelectTab(machineOf(item), idOf(item));
        break;
    case SidebarTree::machineRow:
        // A group with a "Connect" or "Reconnect" button acts on a click of its row.
        for (const SidebarGroup& group : groups_) {
            if (group.machine == machineOf(item) && !group.status.button.empty() && onConnectMachine)
                onConnectMachine(group.machine);
        }
        break;
    default:
        break;
    }
}

void SidebarView::itemChanged(QTreeWidgetItem* item) {
    if (rebuilding_) return;
    std::string text = item->text(0).trimmed().toStdString();
    if (kindOf(item) == SidebarTree::workspaceRow && !text.empty()) {
        if (onRenameWorkspace) onRenameWorkspace(machineOf(item), idOf(item), text);
    } else if (kindOf(item) == SidebarTree::tabRow) {
        if (onRenameTab) onRenameTab(machineOf(item), idOf(item), text);
    }
}

void SidebarView::showMenu(const QPoint& at) {
    QTreeWidgetItem* item = tree_->itemAt(at);
    if (!item) return;
    std::string machine = machineOf(item);
    QMenu menu(this);
    switch (kindOf(item)) {
    case SidebarTree::machineRow: {
        bool connected = false;
        for (const SidebarGroup& group : groups_) {
            if (group.machine == machine) connected = group.status.button != "Connect";
        }
        menu.addAction("New Workspace", [this, machine] {
            if (onNewWorkspace) onNewWorkspace(machine);
        });
        if (machine != "local") {
            menu.addAction(connected ? "Reconnect" : "Connect", [this, machine] {
                if (onConnectMachine) onConnectMachine(machine);
            });
            if (connected) {
                menu.addAction("Disconnect", [this, machine] {
                    if (onDisconnectMachine) onDisconnectMachine(machine);
                });
            }
            menu.addAction("Edit Machine…", [this, machine] {
                if (onEditMachine) onEditMachine(machine);
            });
            menu.addAction("Remove Machine…", [this, machine] {
                if (onRemoveMachine) onRemoveMachine(machine);
            });
        }
        menu.addSeparator();
        menu.addAction("Add Machine…", [this] {
            if (onAddMachine) onAddMachine();
        });
        break;
    }
    case SidebarTree::workspaceRow: {
        uint64_t id = idOf(item);
        menu.addAction("New Tab", [this, machine, id] {
            if (onNewTab) onNewTab(machine, id);
        });
        menu.addAction("Rename Workspace", [this, item] { editItem(item); });
        menu.addAction("Close Workspace", [this, machine, id] {
            if (onCloseWorkspace) onCloseWorkspace(machine, id);
        });
        break;
    }
    case SidebarTree::tabRow: {
        uint64_t id = idOf(item);
        menu.addAction("Rename Tab", [this, item] { editItem(item); });
        menu.addAction("Close Tab", [this, machine, id] {
            if (onCloseTab) onCloseTab(machine, id);
        });
        break;
    }
    default:
        return;
    }
    menu.exec(tree_->viewport()->mapToGlobal(at));
}

} // namespace corvex
