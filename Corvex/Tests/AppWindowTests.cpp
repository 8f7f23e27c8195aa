#include <QApplication>
#include <QClipboard>
#include <QLineEdit>
#include <QMainWindow>
#include <QLabel>
#include <QCheckBox>
#include <QMessageBox>
#include <QSettings>
#include <QPushButton>
#include <QTabBar>
#include <QTest>
#include <QTreeWidget>
#include <gtest/gtest.h>

#include "Corvex/MachineSheet.h"
#include "Corvex/PaneHostView.h"
#include "Corvex/SidebarView.h"
#include "Corvex/SplitLayoutView.h"
#include "Corvex/TabBarView.h"
#include "Corvex/TerminalView.h"
#include "Support/AppHarness.h"

using namespace corvex;
using namespace corvex::apptest;

namespace {

size_t paneCount(ModelStore& store) {
    const Tab* tab = store.focusedTab();
    return tab ? tab->layout.panes().size() : 0;
}

size_t tabCount(ModelStore& store) {
    const Workspace* workspace = store.focusedWorkspace();
    return workspace ? workspace->tabs.size() : 0;
}

// Pixels of the image inside `area` that differ from its top-left corner: anything drawn.
int drawnPixels(const QImage& image, QRect area) {
    area = area.intersected(image.rect());
    if (area.isEmpty()) return 0;
    QRgb background = image.pixel(area.topLeft());
    int drawn = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) drawn += image.pixel(x, y) != background;
    }
    return drawn;
}

QRect inWindow(AppHarness& harness, QWidget* widget) {
    QPoint origin = widget->mapTo(harness.app().window(), QPoint(0, 0));
    return QRect(origin, widget->size());
}

TEST(AppWindowTest, FirstLaunchOpensWorkspaceOneWithALiveShellThatTakesTyping) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell()) << harness.describe();
    ASSERT_EQ(harness.store().state().workspaces.size(), 1u);
    EXPECT_EQ(harness.store().state().workspaces[0].name, "Workspace 1");
    EXPECT_NE(harness.app().sidebar()->item(SidebarTree::workspaceRow, "local",
                                            harness.store().state().workspaces[0].id),
              nullptr);

    uint64_t pane = harness.focusedPane();
    // Keys typed into the new window go to the shell, not to the first widget that could take them.
    QWidget* terminal = harness.app().host(pane)->terminal();
    EXPECT_TRUE(eventually([&] { return QApplication::focusWidget() == terminal; }))
        << (QApplication::focusWidget() ? QApplication::focusWidget()->metaObject()->className() : "no widget");
    harness.type("echo typed-$((6*7))");
    harness.pressReturn();
    EXPECT_TRUE(harness.screenShows(pane, "typed-42")) << harness.screenText(pane);
    EXPECT_TRUE(harness.daemonShows(pane, "typed-42")) << harness.daemonText(pane);

    // The text is in the terminal at once; it reaches the screen at the view's next frame.
    PaneHostView* view = harness.app().host(pane);
    EXPECT_TRUE(eventually([&] { return drawnPixels(harness.screenshot(), inWindow(harness, view->terminal())) > 200; }));
    harness.keepScreenshot("first-launch");
}

TEST(AppWindowTest, ShortcutsSplitCloseAndSwitchTabsAndWorkspaces) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    ModelStore& store = harness.store();
    uint64_t first = harness.focusedPane();

    harness.shortcut(Qt::Key_D);
    ASSERT_TRUE(eventually([&] { return paneCount(store) == 2; }));
    ASSERT_TRUE(harness.waitForShell());
    harness.shortcut(Qt::Key_E);
    ASSERT_TRUE(eventually([&] { return paneCount(store) == 3; }));
    ASSERT_TRUE(harness.waitForShell());
    // Three panes side by side and stacked, each with a frame of its own.
    std::vector<QRect> frames;
    for (uint64_t pane : store.focusedTab()->layout.panes()) {
        PaneHostView* view = harness.app().host(pane);
        ASSERT_NE(view, nullptr);
        EXPECT_TRUE(view->isVisible());
        frames.push_back(view->geometry());
    }
    EXPECT_FALSE(frames[0].intersects(frames[1]));
    EXPECT_FALSE(frames[1].intersects(frames[2]));
    EXPECT_EQ(harness.app().splitView()->dividers().size(), 2u);

    uint64_t newest = harness.focusedPane();
    EXPECT_NE(newest, first);
    harness.shortcut(Qt::Key_W);
    ASSERT_TRUE(eventually([&] { return paneCount(store) == 2; }));
    EXPECT_EQ(harness.app().host(newest), nullptr);

    harness.shortcut(Qt::Key_T);
    ASSERT_TRUE(eventually([&] { return tabCount(store) == 2 && harness.app().tabBar()->bar()->count() == 2; }));
    ASSERT_TRUE(harness.waitForShell());
    uint64_t secondTab = store.focusedTab()->id;
    harness.shortcut(Qt::Key_PageUp, Qt::ControlModifier);
    ASSERT_TRUE(eventually([&] { return store.focusedTab()->id != secondTab; }));
    EXPECT_EQ(paneCount(store), 2u);
    EXPECT_EQ(harness.app().tabBar()->bar()->currentIndex(), 0);

    harness.shortcut(Qt::Key_N);
    ASSERT_TRUE(eventually([&] { return store.state().workspaces.size() == 2; }));
    ASSERT_TRUE(eventually([&] { return store.focusedWorkspace()->id == store.state().workspaces[1].id; }));
    ASSERT_TRUE(harness.waitForShell());

    // Back to the first workspace through the sidebar.
    uint64_t firstWorkspace = store.state().workspaces[0].id;
    QTreeWidgetItem* row = harness.app().sidebar()->item(SidebarTree::workspaceRow, "local", firstWorkspace);
    ASSERT_NE(row, nullptr);
    QTreeWidget* tree = harness.app().sidebar()->tree();
    QTest::mouseClick(tree->viewport(), Qt::LeftButton, {}, tree->visualItemRect(row).center());
    ASSERT_TRUE(eventually([&] { return store.focusedWorkspace()->id == firstWorkspace; }));
    EXPECT_EQ(harness.app().tabBar()->bar()->count(), 2);
    harness.keepScreenshot("splits");
}

TEST(AppWindowTest, DraggingADividerChangesTheRatioOnlyWhenTheDragEnds) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    ModelStore& store = harness.store();
    harness.shortcut(Qt::Key_D);
    ASSERT_TRUE(eventually([&] { return paneCount(store) == 2; }));
    ASSERT_TRUE(eventually([&] { return harness.app().splitView()->dividers().size() == 1; }));
    auto ratio = [&] { return store.focusedTab()->layout.splitNode()->ratio; };
    double before = ratio();

    DividerView* divider = harness.app().splitView()->dividers()[0];
    QPoint middle = divider->rect().center();
    QTest::mousePress(divider, Qt::LeftButton, {}, middle);
    QMouseEvent move(QEvent::MouseMove, QPointF(middle - QPoint(200, 0)), divider->mapToGlobal(QPointF(middle - QPoint(200, 0))),
                     Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(divider, &move);
    QTest::qWait(200);
    EXPECT_DOUBLE_EQ(ratio(), before);
    QTest::mouseRelease(divider, Qt::LeftButton, {}, middle - QPoint(200, 0));
    ASSERT_TRUE(eventually([&] { return ratio() < before - 0.05; })) << ratio();
}

TEST(AppWindowTest, PanesComeBackWhenTheDaemonIsKilledAndNothingTypedLaterIsLost) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    std::string instance = harness.store().hello()->instance;
    harness.type("echo before-kill");
    harness.pressReturn();
    ASSERT_TRUE(harness.screenShows(harness.focusedPane(), "before-kill"));

    harness.killDaemon();
    ASSERT_TRUE(eventually(
        [&] {
            return harness.store().isConnected() && harness.store().hello() &&
                   harness.store().hello()->instance != instance;
        },
        30s));
    ASSERT_TRUE(harness.waitForShell()) << harness.screenText(harness.focusedPane());
    uint64_t pane = harness.focusedPane();
    // A pane the daemon rebuilt says so above its terminal.
    const Pane* model = harness.store().state().pane(pane);
    QWidget* note = harness.app().host(pane)->findChild<QWidget*>("restoredNote");
    ASSERT_NE(note, nullptr);
    EXPECT_EQ(note->isVisible(), model && model->restored.has_value());
    harness.type("echo after-$((40+2))");
    harness.pressReturn();
    EXPECT_TRUE(harness.screenShows(pane, "after-42")) << harness.screenText(pane);
    EXPECT_TRUE(harness.daemonShows(pane, "after-42")) << harness.daemonText(pane);
    harness.keepScreenshot("after-restart");
}

TEST(AppWindowTest, AFullScreenProgramFillsThePaneAndFollowsTheWindowSize) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    uint64_t pane = harness.focusedPane();
    harness.type("stty size");
    harness.pressReturn();
    PaneHostView* view = harness.app().host(pane);
    std::string size = std::to_string(view->terminal()->rows()) + " " + std::to_string(view->terminal()->cols());
    EXPECT_TRUE(harness.screenShows(pane, size)) << size << "\n" << harness.screenText(pane);

    harness.app().window()->resize(1000, 600);
    // Settled: the size asked for is the PTY's and the view's.
    ASSERT_TRUE(eventually([&] {
        const Pane* model = harness.store().state().pane(pane);
        auto asked = view->host().sentViewport();
        return model && asked && asked->cols < 100 && model->cols == asked->cols && model->rows == asked->rows &&
               view->terminal()->cols() == asked->cols && view->terminal()->rows() == asked->rows;
    })) << harness.describe();
    int rows = view->terminal()->rows();
    harness.type("vi");
    harness.pressReturn();
    // An empty buffer in vi: every row below the first starts with a tilde.
    ASSERT_TRUE(eventually([&] {
        std::string text = harness.screenText(pane);
        return std::count(text.begin(), text.end(), '~') >= rows - 3;
    })) << harness.screenText(pane);
    harness.keepScreenshot("vi");
    harness.type("\x1b:q!");
    harness.pressReturn();
}

TEST(AppWindowTest, PasteSendsTheClipboardAndAProgramCanCopy) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    uint64_t pane = harness.focusedPane();
    QApplication::clipboard()->setText("echo pasted-$((5*5))");
    harness.shortcut(Qt::Key_V);
    harness.pressReturn();
    EXPECT_TRUE(harness.screenShows(pane, "pasted-25")) << harness.screenText(pane);

    // OSC 52 from the shown pane reaches the clipboard.
    harness.type("printf '\\033]52;c;%s\\a' $(printf copied-by-program | base64)");
    harness.pressReturn();
    EXPECT_TRUE(eventually([] { return QApplication::clipboard()->text() == "copied-by-program"; }))
        << QApplication::clipboard()->text().toStdString();
}

TEST(AppWindowTest, MaximizingShowsOnePaneAndClosingItShowsTheRest) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    ModelStore& store = harness.store();
    uint64_t first = harness.focusedPane();
    harness.shortcut(Qt::Key_D);
    ASSERT_TRUE(eventually([&] { return paneCount(store) == 2; }));
    ASSERT_TRUE(harness.waitForShell());
    uint64_t second = harness.focusedPane();

    harness.shortcut(Qt::Key_M);
    ASSERT_TRUE(eventually([&] { return harness.app().splitView()->maximized() == second; }));
    EXPECT_FALSE(harness.app().host(first)->isVisible());
    EXPECT_EQ(harness.app().host(second)->geometry(), harness.app().splitView()->rect());

    // Closing the maximized pane leaves the other one, shown whole.
    harness.shortcut(Qt::Key_W);
    ASSERT_TRUE(eventually([&] { return paneCount(store) == 1; }));
    EXPECT_FALSE(harness.app().splitView()->maximized());
    EXPECT_TRUE(eventually([&] { return harness.app().host(first) && harness.app().host(first)->isVisible(); }));
}

TEST(AppWindowTest, WorkspacesAreRenamedAndReorderedFromTheSidebarAndTabsFromTheTabBar) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    ModelStore& store = harness.store();
    harness.shortcut(Qt::Key_N);
    ASSERT_TRUE(eventually([&] { return store.state().workspaces.size() == 2; }));
    uint64_t first = store.state().workspaces[0].id;
    uint64_t second = store.state().workspaces[1].id;

    SidebarView* sidebar = harness.app().sidebar();
    QTreeWidgetItem* row = sidebar->item(SidebarTree::workspaceRow, "local", second);
    ASSERT_NE(row, nullptr);
    sidebar->editItem(row);
    QWidget* editor = QApplication::focusWidget();
    ASSERT_NE(qobject_cast<QLineEdit*>(editor), nullptr);
    qobject_cast<QLineEdit*>(editor)->selectAll();
    QTest::keyClicks(editor, "Logs");
    QTest::keyClick(editor, Qt::Key_Return);
    ASSERT_TRUE(eventually([&] { return store.state().workspace(second)->name == "Logs"; }));

    // Drag "Logs" above the first workspace.
    QTreeWidget* tree = sidebar->tree();
    ASSERT_TRUE(eventually([&] { return sidebar->item(SidebarTree::workspaceRow, "local", second) != nullptr; }));
    tree->setCurrentItem(sidebar->item(SidebarTree::workspaceRow, "local", second));
    sidebar->tree()->onMoveWorkspace("local", second, 0);
    ASSERT_TRUE(eventually([&] { return store.state().workspaces[0].id == second; }));
    EXPECT_EQ(store.state().workspaces[1].id, first);
    ASSERT_TRUE(eventually([&] {
        QTreeWidgetItem* machine = tree->topLevelItem(0);
        return machine && machine->childCount() == 2 && machine->child(0)->text(0) == "Logs";
    }));

    // A tab renamed in the tab bar.
    harness.shortcut(Qt::Key_T);
    ASSERT_TRUE(eventually([&] { return harness.app().tabBar()->bar()->count() == 2; }));
    harness.app().tabBar()->beginRename(1);
    QWidget* tabEditor = QApplication::focusWidget();
    ASSERT_NE(qobject_cast<QLineEdit*>(tabEditor), nullptr);
    qobject_cast<QLineEdit*>(tabEditor)->selectAll();
    QTest::keyClicks(tabEditor, "build");
    QTest::keyClick(tabEditor, Qt::Key_Return);
    ASSERT_TRUE(eventually([&] { return harness.app().tabBar()->bar()->tabText(1) == "build"; }));
    EXPECT_NE(harness.app().window()->windowTitle().toStdString().find("build — Logs"), std::string::npos)
        << harness.app().window()->windowTitle().toStdString();
}

TEST(AppWindowTest, MachinesAreAddedEditedAndRemovedThroughTheirSheets) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    AppDelegate& app = harness.app();

    app.showAddMachine();
    auto* sheet = qobject_cast<MachineSheet*>(app.machineSheet());
    ASSERT_NE(sheet, nullptr);
    EXPECT_FALSE(sheet->acceptButton()->isEnabled());
    QTest::keyClicks(sheet->targetField(), "-oProxyCommand=x");
    EXPECT_EQ(sheet->problemLabel()->text().toStdString(),
              "Can't use \"-oProxyCommand=x\"\nAn SSH target can't start with \"-\".");
    EXPECT_FALSE(sheet->acceptButton()->isEnabled());
    sheet->targetField()->clear();
    QTest::keyClicks(sheet->targetField(), "nobody@127.0.0.1");
    EXPECT_TRUE(sheet->problemLabel()->text().isEmpty());
    QTest::keyClicks(sheet->labelField(), "Box");
    QTest::mouseClick(sheet->acceptButton(), Qt::LeftButton);

    // The machine is stored, connected and shown, and its line tells how the connection goes.
    ASSERT_EQ(app.machines().remoteMachines().size(), 1u);
    std::string key = app.machines().remoteMachines()[0].key();
    EXPECT_EQ(app.machines().connected(), std::vector<std::string>{key});
    EXPECT_EQ(app.focusedMachine(), key);
    QTreeWidgetItem* group = nullptr;
    ASSERT_TRUE(eventually([&] {
        group = app.sidebar()->item(SidebarTree::machineRow, key, 0);
        return group && group->text(0).startsWith("Box\n");
    }));
    EXPECT_EQ(app.sidebar()->tree()->topLevelItem(0)->data(0, SidebarTree::machineRole).toString(), "local");
    eventually(
        [&] {
            QTreeWidgetItem* row = app.sidebar()->item(SidebarTree::machineRow, key, 0);
            return row && row->text(0).contains("Can't connect");
        },
        15s);
    harness.keepScreenshot("machine");

    app.showEditMachine(key);
    auto* edit = qobject_cast<MachineSheet*>(app.machineSheet());
    ASSERT_NE(edit, nullptr);
    EXPECT_EQ(edit->targetField()->text(), "nobody@127.0.0.1");
    edit->labelField()->selectAll();
    QTest::keyClicks(edit->labelField(), "Build box");
    QTest::mouseClick(edit->acceptButton(), Qt::LeftButton);
    ASSERT_TRUE(eventually([&] {
        QTreeWidgetItem* row = app.sidebar()->item(SidebarTree::machineRow, key, 0);
        return row && row->text(0).startsWith("Build box");
    }));

    app.showRemoveMachine(key);
    auto* ask = qobject_cast<QMessageBox*>(app.machineSheet());
    ASSERT_NE(ask, nullptr);
    EXPECT_EQ(ask->text().toStdString(), "Remove Build box?");
    QAbstractButton* remove = nullptr;
    for (QAbstractButton* button : ask->buttons()) {
        if (button->text() == "Remove") remove = button;
    }
    ASSERT_NE(remove, nullptr);
    QTest::mouseClick(remove, Qt::LeftButton);
    ASSERT_TRUE(eventually([&] { return app.sidebar()->item(SidebarTree::machineRow, key, 0) == nullptr; }));
    EXPECT_TRUE(app.machines().remoteMachines().empty());
    EXPECT_TRUE(app.machines().connected().empty());
    EXPECT_EQ(app.focusedMachine(), "local");
    EXPECT_TRUE(harness.waitForShell());
}

TEST(AppWindowTest, ClosingAPaneAsksFirstUnlessTheUserSaidNotTo) {
    AppHarness harness;
    ASSERT_TRUE(harness.waitForShell());
    ModelStore& store = harness.store();
    QSettings("Corvex", "Corvex").setValue("SkipCloseConfirm.Pane", false);
    harness.shortcut(Qt::Key_D);
    ASSERT_TRUE(eventually([&] { return paneCount(store) == 2; }));
    ASSERT_TRUE(harness.waitForShell());

    auto answer = [&](const QString& text, bool dontAskAgain) {
        auto* ask = qobject_cast<QMessageBox*>(harness.app().machineSheet());
        ASSERT_NE(ask, nullptr);
        EXPECT_EQ(ask->informativeText().toStdString(),
                  "This stops anything running in it. Closing a tab's last pane closes the tab.");
        ask->checkBox()->setChecked(dontAskAgain);
        for (QAbstractButton* button : ask->buttons()) {
            if (button->text() == text) QTest::mouseClick(button, Qt::LeftButton);
        }
    };
    harness.shortcut(Qt::Key_W);
    answer("Cancel", false);
    QTest::qWait(300);
    EXPECT_EQ(paneCount(store), 2u);

    harness.shortcut(Qt::Key_W);
    answer("Close", true);
    ASSERT_TRUE(eventually([&] { return paneCount(store) == 1; }));
    EXPECT_TRUE(QSettings("Corvex", "Corvex").value("SkipCloseConfirm.Pane").toBool());
}

} // namespace

int main(int argc, char** argv) {
    return corvex::apptest::runWindowTests(argc, argv);
}
