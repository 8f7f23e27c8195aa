#include "Corvex/PaneHostView.h"

#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QTimer>
#include <QToolButton>

#include "Corvex/TerminalView.h"

namespace corvex {

namespace {

constexpr int inset = static_cast<int>(PaneHostSink::margin / 2);

} // namespace

PaneHostView::PaneHostView(uint64_t pane, PaneHostContext context, double fontSize, QWidget* parent)
    : QWidget(parent), pane_(pane) {
    setObjectName(QString("pane-%1").arg(pane));
    terminal_ = new TerminalView(this);
    terminal_->setFontSize(fontSize);
    host_ = PaneHostSink::make(pane, *this, std::move(context));
    std::weak_ptr<PaneHostSink> weakHost = host_;
    terminal_->onInput = [weakHost](std::vector<uint8_t> bytes) {
        if (auto host = weakHost.lock()) host->sendInput(bytes);
    };
    terminal_->onFocusIn = [this] {
        if (onTookKeyboard) onTookKeyboard();
    };
    terminal_->onTitle = [this](std::string title) {
        if (onTitle) onTitle(title);
    };

    restoredNote_ = new QWidget(this);
    restoredNote_->setObjectName("restoredNote");
    restoredNote_->setAutoFillBackground(true);
    auto* noteLayout = new QHBoxLayout(restoredNote_);
    noteLayout->setContentsMargins(8, 2, 4, 2);
    auto* icon = new QLabel(QString::fromUtf8("\u21bb"), restoredNote_);
    restoredText_ = new QLabel(restoredNote_);
    auto* dismiss = new QToolButton(restoredNote_);
    dismiss->setText(QString::fromUtf8("\u2715"));
    dismiss->setAccessibleName("Dismiss");
    dismiss->setToolTip("Dismiss");
    dismiss->setAutoRaise(true);
    noteLayout->addWidget(icon);
    noteLayout->addWidget(restoredText_, 1);
    noteLayout->addWidget(dismiss);
    connect(dismiss, &QToolButton::clicked, this, [this] {
        restoredNote_->hide();
        if (onDismissRestored) onDismissRestored();
    });
    restoredNote_->hide();

    closeButton_ = new QToolButton(this);
    closeButton_->setObjectName("closePane");
    closeButton_->setText(QString::fromUtf8("\u2715"));
    closeButton_->setAccessibleName("Close Pane");
    closeButton_->setToolTip("Close Pane (Ctrl+Shift+W)");
    closeButton_->setAutoRaise(true);
    closeButton_->hide();
    connect(closeButton_, &QToolButton::clicked, this, [this] {
        if (onClose) onClose();
    });
}

PaneHostView::~PaneHostView() {
    host_->detach();
}

void PaneHostView::retire() {
    host_->unsubscribe();
    host_->detach();
}

void PaneHostView::setFocusedPane(bool focused, bool showRing) {
    if (focused_ == focused && showRing_ == showRing) return;
    focused_ = focused;
    showRing_ = showRing;
    update();
}

void PaneHostView::setRestored(const std::optional<PaneRestore>& restored) {
    if (restored_ == restored) return;
    restored_ = restored;
    if (restored) {
        restoredText_->setText(QString::fromStdString(restored->note()));
        restoredNote_->show();
    } else {
        restoredNote_->hide();
    }
    placeChildren();
}

void PaneHostView::placeChildren() {
    QRect area = rect();
    int top = 0;
    if (!restoredNote_->isHidden()) {
        int height = restoredNote_->sizeHint().height();
        restoredNote_->setGeometry(0, 0, width(), height);
        top = height;
    }
    terminal_->setGeometry(area.adjusted(inset, inset + top, -inset, -inset));
    QSize button = closeButton_->sizeHint();
    closeButton_->setGeometry(width() - button.width() - 2, top + 2, button.width(), button.height());
    closeButton_->raise();
}

void PaneHostView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    placeChildren();
    reportLayout();
}

void PaneHostView::reportLayout() {
    // The note takes its room from the terminal, so the pane's size leaves it out.
    int noteHeight = !restoredNote_->isHidden() ? restoredNote_->height() : 0;
    host_->layoutChanged(width(), height() - noteHeight);
}

void PaneHostView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    reportLayout();
}

void PaneHostView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    QColor background = QColor::fromRgb(terminal_->colors().background);
    painter.fillRect(rect(), background);
    if (focused_ && showRing_) {
        painter.setPen(QPen(QColor(0x4a, 0x90, 0xd9), 2));
        painter.drawRect(rect().adjusted(1, 1, -1, -1));
    }
}

void PaneHostView::enterEvent(QEnterEvent* event) {
    QWidget::enterEvent(event);
    closeButton_->show();
    closeButton_->raise();
}

void PaneHostView::leaveEvent(QEvent* event) {
    QWidget::leaveEvent(event);
    closeButton_->hide();
}

void PaneHostView::feedFromBackend(ByteView bytes) {
    terminal_->feedFromBackend(bytes);
}

void PaneHostView::resizeTerminal(int cols, int rows) {
    terminal_->resizeTerminal(cols, rows);
}

Size PaneHostView::terminalSize() const {
    return {terminal_->cols(), terminal_->rows()};
}

Size PaneHostView::cellSize() const {
    QSize cell = terminal_->cellSize();
    return {cell.width(), cell.height()};
}

bool PaneHostView::isShown() const {
    return isVisible() && window() && window()->isVisible();
}

void PaneHostView::writeClipboard(const std::string& text, bool selection) {
    QApplication::clipboard()->setText(QString::fromStdString(text),
                                       selection ? QClipboard::Selection : QClipboard::Clipboard);
}

void PaneHostView::requestLayout() {
    if (layoutQueued_) return;
    layoutQueued_ = true;
    QTimer::singleShot(0, this, [this] {
        layoutQueued_ = false;
        placeChildren();
        reportLayout();
    });
}

} // namespace corvex
