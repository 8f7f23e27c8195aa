#pragma once

#include <QWidget>
#include <functional>
#include <memory>
#include <optional>

#include "CorvexKit/PaneHostSink.h"
#include "CorvexKit/SessionModel.h"

class QLabel;
class QToolButton;

namespace corvex {

class TerminalView;

// A pane on screen: the pane's terminal view, with the session logic of PaneHostSink behind it,
// the restored note above it and a close button in its corner.
class PaneHostView final : public QWidget, private PaneTerminal {
    Q_OBJECT
public:
    PaneHostView(uint64_t pane, PaneHostContext context, double fontSize, QWidget* parent = nullptr);
    ~PaneHostView() override;

    uint64_t paneID() const { return pane_; }
    TerminalView* terminal() const { return terminal_; }
    PaneHostSink& host() const { return *host_; }
    std::shared_ptr<PaneDataSink> sink() const { return host_; }

    void setFocusedPane(bool focused, bool showRing);
    void setRestored(const std::optional<PaneRestore>& restored);
    // The pane leaves the model: unsubscribe and stop drawing.
    void retire();

    std::function<void()> onClose;
    std::function<void()> onDismissRestored;
    std::function<void()> onTookKeyboard;
    std::function<void(const std::string& title)> onTitle;

protected:
    void resizeEvent(QResizeEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void feedFromBackend(ByteView bytes) override;
    void resizeTerminal(int cols, int rows) override;
    Size terminalSize() const override;
    Size cellSize() const override;
    bool isShown() const override;
    void writeClipboard(const std::string& text, bool selection) override;
    void requestLayout() override;

    void placeChildren();
    void reportLayout();

    uint64_t pane_;
    TerminalView* terminal_ = nullptr;
    QWidget* restoredNote_ = nullptr;
    QLabel* restoredText_ = nullptr;
    QToolButton* closeButton_ = nullptr;
    std::optional<PaneRestore> restored_;
    bool focused_ = false;
    bool showRing_ = false;
    bool layoutQueued_ = false;
    std::shared_ptr<PaneHostSink> host_;
};

} // namespace corvex
