#include "Corvex/TabBarView.h"

#include <QHBoxLayout>
#include <QLineEdit>
#include <QToolButton>

#include "Corvex/Theme.h"

namespace corvex {

TabBarView::TabBarView(QWidget* parent) : QWidget(parent) {
    setObjectName("tabBar");
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 4, 0);
    layout->setSpacing(2);
    bar_ = new QTabBar(this);
    bar_->setMovable(true);
    bar_->setTabsClosable(true);
    bar_->setExpanding(false);
    bar_->setDocumentMode(true);
    bar_->setUsesScrollButtons(true);
    bar_->setElideMode(Qt::ElideRight);
    bar_->setFocusPolicy(Qt::NoFocus);
    add_ = new QToolButton(this);
    add_->setObjectName("newTab");
    add_->setText("+");
    add_->setToolTip("New Tab (Ctrl+Shift+T)");
    add_->setAutoRaise(true);
    add_->setFocusPolicy(Qt::NoFocus);
    layout->addWidget(bar_, 1);
    layout->addWidget(add_);

    connect(add_, &QToolButton::clicked, this, [this] {
        if (onNewTab) onNewTab();
    });
    connect(bar_, &QTabBar::tabBarClicked, this, [this](int index) {
        if (index < 0 || index >= static_cast<int>(items_.size())) return;
        if (onSelect) onSelect(items_[static_cast<size_t>(index)].id);
    });
    connect(bar_, &QTabBar::tabCloseRequested, this, [this](int index) {
        if (index < 0 || index >= static_cast<int>(items_.size())) return;
        if (onClose) onClose(items_[static_cast<size_t>(index)].id);
    });
    connect(bar_, &QTabBar::tabMoved, this, [this](int from, int to) {
        if (rebuilding_ || from < 0 || from >= static_cast<int>(items_.size())) return;
        TabBarItem moved = items_[static_cast<size_t>(from)];
        items_.erase(items_.begin() + from);
        items_.insert(items_.begin() + to, moved);
        if (onMove) onMove(moved.id, to);
    });
    connect(bar_, &QTabBar::tabBarDoubleClicked, this, [this](int index) {
        if (index >= 0) beginRename(index);
    });
}

void TabBarView::update(const std::vector<TabBarItem>& items) {
    if (items == items_ && bar_->count() == static_cast<int>(items.size())) return;
    items_ = items;
    rebuild();
}

void TabBarView::rebuild() {
    rebuilding_ = true;
    while (bar_->count() > static_cast<int>(items_.size())) bar_->removeTab(bar_->count() - 1);
    while (bar_->count() < static_cast<int>(items_.size())) bar_->addTab(QString());
    for (size_t index = 0; index < items_.size(); ++index) {
        const TabBarItem& item = items_[index];
        int at = static_cast<int>(index);
        QString title = QString::fromStdString(item.title);
        if (item.maximized) title = QString::fromUtf8("\u2922 ") + title;
        bar_->setTabText(at, title);
        bar_->setTabToolTip(at, QString::fromStdString(item.title));
        bar_->setTabIcon(at, item.badge ? theme::dot(theme::agentColor(*item.badge)) : QIcon());
        if (item.focused) bar_->setCurrentIndex(at);
    }
    rebuilding_ = false;
}

void TabBarView::beginRename(int index) {
    if (index < 0 || index >= static_cast<int>(items_.size())) return;
    delete editor_;
    editor_ = new QLineEdit(bar_);
    editor_->setObjectName("tabTitleEditor");
    editor_->setText(QString::fromStdString(items_[static_cast<size_t>(index)].title));
    editor_->selectAll();
    editor_->setGeometry(bar_->tabRect(index));
    uint64_t tab = items_[static_cast<size_t>(index)].id;
    connect(editor_, &QLineEdit::editingFinished, this, [this, tab] {
        if (!editor_) return;
        QLineEdit* editor = editor_;
        editor_ = nullptr;
        std::string title = editor->text().trimmed().toStdString();
        editor->deleteLater();
        if (onRename) onRename(tab, title);
    });
    editor_->show();
    editor_->setFocus();
}

} // namespace corvex
