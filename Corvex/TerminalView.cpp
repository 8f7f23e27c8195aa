#include "Corvex/TerminalView.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QUrl>
#include <QGuiApplication>
#include <QInputMethodEvent>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QShowEvent>
#include <QHideEvent>
#include <QPainter>
#include <QWheelEvent>
#include <any>
#include <cmath>

#include "Corvex/TerminalKeyMapping.h"
#include "Vellum/KeyEncoder.h"
#include "Vellum/Terminal.h"
#include "Vellum/TinyAtom.h"

namespace corvex {

namespace {

constexpr double wheelLinesPerNotch = 3;

std::optional<vellum::MouseButton> mouseButton(Qt::MouseButton button) {
    switch (button) {
    case Qt::LeftButton: return vellum::MouseButton::left;
    case Qt::MiddleButton: return vellum::MouseButton::middle;
    case Qt::RightButton: return vellum::MouseButton::right;
    case Qt::BackButton: return vellum::MouseButton::back;
    case Qt::ForwardButton: return vellum::MouseButton::forward;
    default: return std::nullopt;
    }
}

vellum::KeyModifiers keyModifiers(Qt::KeyboardModifiers mods) {
    return {.shift = mods.testFlag(Qt::ShiftModifier), .alt = mods.testFlag(Qt::AltModifier),
            .ctrl = mods.testFlag(Qt::ControlModifier), .meta = mods.testFlag(Qt::MetaModifier)};
}

} // namespace

// What leaves the terminal. Replies are dropped while the backend's bytes are being fed,
// since the daemon's terminal answers the program itself.
class TerminalView::Delegate final : public vellum::TerminalDelegate {
public:
    explicit Delegate(TerminalView& view) : view(view) {}

    void sizeChanged(vellum::Terminal&) override {}
    void send(vellum::Terminal&, std::span<const uint8_t> data) override {
        if (view.feeding_ || view.quiet_ > 0 || !view.onInput) return;
        view.onInput(std::vector<uint8_t>(data.begin(), data.end()));
    }
    void setTerminalTitle(vellum::Terminal&, const std::string& title) override {
        if (view.onTitle) view.onTitle(title);
    }
    void bell(vellum::Terminal&) override {
        if (view.onBell) view.onBell();
    }
    void clipboardCopy(vellum::Terminal&, const std::vector<uint8_t>& content) override {
        if (view.onClipboardWrite) view.onClipboardWrite(std::string(content.begin(), content.end()));
    }
    std::optional<std::pair<int, int>> cellSizeInPixels(vellum::Terminal&) override {
        QSize cell = view.cellSize();
        return std::pair{cell.width(), cell.height()};
    }
    void synchronizedOutputChanged(vellum::Terminal&, bool active) override {
        if (!active) view.scheduleFrame();
    }
    void scheduleSynchronizedOutputTimeout(vellum::Terminal& source, uint32_t afterMilliseconds) override {
        uint64_t generation = source.synchronizedOutputGeneration();
        TerminalView* target = &view;
        QTimer::singleShot(int(afterMilliseconds), target, [target, generation] {
            vellum::Terminal& terminal = *target->terminal_;
            if (!terminal.synchronizedOutputActive || terminal.synchronizedOutputGeneration() != generation) return;
            terminal.endSynchronizedOutput();
            target->scheduleFrame();
        });
    }
    void colorChanged(vellum::Terminal&, std::optional<int>) override { view.scheduleFrame(); }

private:
    TerminalView& view;
};

TerminalView::TerminalView(QWidget* parent)
    : QWidget(parent), delegate_(std::make_unique<Delegate>(*this)),
      terminal_(std::make_unique<vellum::Terminal>(delegate_.get(), vellum::TerminalOptions{})) {
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_InputMethodEnabled);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMouseTracking(true);
    setCursor(Qt::IBeamCursor);
    connect(&blinkTimer_, &QTimer::timeout, this, &TerminalView::blinkTick);
    dragScroll_.setInterval(50);
    connect(&dragScroll_, &QTimer::timeout, this, &TerminalView::dragScrollTick);
    sinceActivity_.start();
    clock_.start();
    theme_ = TerminalTheme::forAppearance(dark_);
    quietly([&] {
        terminal_->setFocused(false);
        terminal_->updatePixelGeometry(cellSize().width(), cellSize().height());
    });
    startFrameDriver();
    applyTheme();
    attachGLSurface();
    renderNow(); // the first paint shows the theme's colours, not an empty snapshot's
}

TerminalView::~TerminalView() = default;

template <typename Change>
void TerminalView::quietly(Change&& change) {
    ++quiet_;
    change();
    --quiet_;
}

// ---- Output and frames

void TerminalView::feedFromBackend(std::span<const uint8_t> bytes) {
    feeding_ = true;
    terminal_->feed(bytes);
    feeding_ = false;
    scheduleFrame();
}

void TerminalView::resizeTerminal(int cols, int rows) {
    if (cols == terminal_->cols() && rows == terminal_->rows()) return;
    quietly([&] { terminal_->resize(cols, rows); });
    selection_.clear();
    updateGeometry();
    scheduleFrame();
}

void TerminalView::resetTerminal() {
    static constexpr uint8_t fullReset[] = {0x1b, 'c'};
    selection_.clear();
    feedFromBackend(fullReset);
}

void TerminalView::startFrameDriver() {
    QPointer<TerminalView> self(this);
    frameSignal_ = vellum::FrameDriverSignal::make([self](std::function<void()> work) {
        if (self) QMetaObject::invokeMethod(self.data(), std::move(work), Qt::QueuedConnection);
    });
    frameClock_ = std::make_unique<TerminalViewFrameClock>(
        this, [signal = frameSignal_] { signal->publish(vellum::FrameDriverSignal::linkTick); });
    frameDriver_ = std::make_unique<vellum::FrameDriver>(frameSignal_, *frameClock_);
    frameDriver_->onTick = [this] { frame(); };
}

// Any number of changes between two ticks make one frame.
void TerminalView::scheduleFrame() { frameSignal_->publish(vellum::FrameDriverSignal::dirty); }

void TerminalView::renderNow() { frame(); }

void TerminalView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (event->spontaneous()) hiddenSpontaneously_ = false;
    if (watchedWindow_ != window()) {
        if (watchedWindow_) watchedWindow_->removeEventFilter(this);
        watchedWindow_ = window();
        if (watchedWindow_ != this) watchedWindow_->installEventFilter(this);
    }
    updateEffectiveVisibility();
}

void TerminalView::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    if (event->spontaneous()) hiddenSpontaneously_ = true;
    updateEffectiveVisibility();
}

bool TerminalView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == watchedWindow_ && event->type() == QEvent::WindowStateChange) updateEffectiveVisibility();
    return QWidget::eventFilter(watched, event);
}

void TerminalView::updateEffectiveVisibility() {
    bool minimised = window()->windowState().testFlag(Qt::WindowMinimized);
    frameDriver_->setEffectivelyVisible(isVisible() && !hiddenSpontaneously_ && !minimised);
}

void TerminalView::frame() {
    // A batch of synchronized output is drawn once it is complete; its end, or its timeout,
    // schedules the frame.
    if (terminal_->synchronizedOutputActive) return;
    vellum::RenderSnapshotCursor cursorBefore = snapshot_.state().cursor;
    bool alternateBefore = snapshot_.state().isAlternateScreen;
    auto changed = snapshot_.refresh(*terminal_);
    // A selection names rows of one screen; it means nothing on the other.
    if (snapshot_.state().isAlternateScreen != alternateBefore) selection_.clear();
    if (snapshot_.appearanceChanged()) update();
    else if (changed) repaintRows(changed->startY, changed->endY);
    if (snapshot_.state().cursor != cursorBefore) restartBlink();
}

void TerminalView::repaintRows(int first, int last) {
    int ch = cellSize().height();
    update(QRect(0, first * ch, width(), (last - first + 1) * ch));
}

void TerminalView::paintEvent(QPaintEvent* event) {
    QPainter painter(this);
    const vellum::TerminalRenderSnapshot& state = snapshot_.state();
    QRect area = event->rect();
    painter.fillRect(area, TerminalPainter::defaultBackground(state));
    int ch = cellSize().height();
    int first = std::max(0, area.top() / ch);
    int last = std::min(int(snapshot_.rows().size()) - 1, area.bottom() / ch);
    auto selected = selection_.range();
    int top = historyTopRow();
    for (int y = first; y <= last; ++y) {
        RowOverlay overlay;
        int row = top + y;
        if (selected && row >= selected->start.row && row <= selected->end.row) {
            int from = row == selected->start.row ? selected->start.col : 0;
            int to = row == selected->end.row ? selected->end.col : state.cols;
            if (from < to) overlay.selection = std::pair{from, to};
        }
        if (y == state.cursor.y) {
            // Uncommitted input shows at the cursor even while the program hides the cursor.
            overlay.focused = hasFocus();
            overlay.cursor = !state.cursor.hidden && cursorShownNow();
            overlay.preedit = preedit_;
        }
        painter_.paintRow(painter, snapshot_, y, overlay);
    }
}

QSize TerminalView::sizeHint() const {
    return QSize(terminal_->cols() * cellSize().width(), terminal_->rows() * cellSize().height());
}

// ---- Cursor

bool TerminalView::cursorShownNow() const {
    if (!hasFocus()) return true; // hollow, steady
    return !snapshot_.state().cursor.blink || blinkVisible_;
}

QRect TerminalView::cursorRect() const {
    const auto& cursor = snapshot_.state().cursor;
    QSize cell = cellSize();
    return QRect(cursor.x * cell.width(), cursor.y * cell.height(), cell.width(), cell.height());
}

void TerminalView::restartBlink() {
    sinceActivity_.restart();
    const auto& cursor = snapshot_.state().cursor;
    bool wasHidden = !blinkVisible_;
    blinkVisible_ = true;
    // A flash time of 0 is the desktop's way of saying that cursors do not blink.
    int flashTime = QApplication::cursorFlashTime();
    if (hasFocus() && cursor.blink && !cursor.hidden && flashTime > 0) {
        blinkTimer_.setInterval(std::max(50, flashTime / 2));
        if (!blinkTimer_.isActive()) blinkTimer_.start();
    } else {
        blinkTimer_.stop();
    }
    if (wasHidden) repaintRows(cursor.y, cursor.y);
}

void TerminalView::blinkTick() {
    const auto& cursor = snapshot_.state().cursor;
    // A quiet cursor stops blinking, so that an idle view costs nothing.
    bool blinking = hasFocus() && cursor.blink && !cursor.hidden && sinceActivity_.elapsed() < blinkTimeout_.count();
    if (!blinking) {
        blinkTimer_.stop();
        if (blinkVisible_) return;
        blinkVisible_ = true;
    } else {
        blinkVisible_ = !blinkVisible_;
    }
    repaintRows(cursor.y, cursor.y);
}

// ---- Appearance

double TerminalView::fontSize() const { return painter_.font().pointSizeF(); }

void TerminalView::setFontSize(double points) {
    if (points <= 0 || points == fontSize()) return;
    QFont font = painter_.font();
    font.setPointSizeF(points);
    painter_.setFont(font);
    quietly([&] { terminal_->updatePixelGeometry(cellSize().width(), cellSize().height()); });
    updateGeometry();
    update();
}

void TerminalView::setDarkAppearance(bool dark) {
    if (dark == dark_) return;
    dark_ = dark;
    theme_ = TerminalTheme::forAppearance(dark);
    applyTheme();
}

void TerminalView::applyTheme() {
    quietly([&] {
        terminal_->setForegroundColor(theme_.foreground);
        terminal_->setBackgroundColor(theme_.background);
        terminal_->setCursorColorValue(theme_.cursor);
        auto palette = vellum::buildAnsiPalette(theme_.ansi, terminal_->options().ansi256PaletteStrategy,
                                                theme_.foreground, theme_.background);
        terminal_->ansiColors = palette;
        terminal_->defaultAnsiColors = palette;
    });
    scheduleFrame();
}

TerminalColors TerminalView::colors() const {
    TerminalColors colors{toRGB(theme_.foreground), toRGB(theme_.background), toRGB(theme_.cursor), std::vector<RGB>{}};
    auto palette = vellum::buildAnsiPalette(theme_.ansi, terminal_->options().ansi256PaletteStrategy, theme_.foreground,
                                            theme_.background);
    for (const vellum::Color& color : palette) colors.ansi->push_back(toRGB(color));
    return colors;
}

// ---- Text

std::string TerminalView::screenText() const {
    vellum::Buffer& b = terminal_->buffer();
    std::string out;
    for (int row = 0; row < terminal_->rows(); ++row) {
        if (row) out += '\n';
        out += b.lines[b.yDisp + row].translateToString(true, 0, -1, true);
    }
    return out;
}

std::string TerminalView::shownText() const {
    std::string out;
    const auto& rows = snapshot_.rows();
    for (size_t y = 0; y < rows.size(); ++y) {
        if (y) out += '\n';
        if (!rows[y].row.cells) continue;
        for (const auto& cell : *rows[y].row.cells) {
            if (cell.widthState == vellum::RenderSnapshotWidthState::narrow && cell.text.empty()) out += ' ';
            else out += cell.text;
        }
    }
    return out;
}

int TerminalView::cols() const { return terminal_->cols(); }
int TerminalView::rows() const { return terminal_->rows(); }

int TerminalView::historyTopRow() const { return terminal_->buffer().yDisp; }

void TerminalView::scrollLines(int lines) {
    int before = historyTopRow();
    terminal_->scrollDisplay(-lines);
    if (historyTopRow() != before) scheduleFrame();
}

void TerminalView::scrollToBottom() { scrollLines(-(terminal_->buffer().yBase - historyTopRow())); }

// ---- Input

void TerminalView::sendUserInput(std::string_view bytes) {
    if (bytes.empty()) return;
    // The pointer hides while typing, and comes back when the mouse moves.
    if (underMouse()) setCursor(Qt::BlankCursor);
    scrollToBottom();
    restartBlink();
    if (onInput) onInput(std::vector<uint8_t>(bytes.begin(), bytes.end()));
}

bool TerminalView::event(QEvent* event) {
    if (event->type() == QEvent::ShortcutOverride) {
        auto* key = static_cast<QKeyEvent*>(event);
        Qt::KeyboardModifiers mods = key->modifiers();
        // Ctrl+Shift chords and Ctrl with the paging keys (next and previous tab) belong to the
        // application's shortcuts; every other key is the program's, plain Ctrl keys included.
        if (mods.testFlag(Qt::ControlModifier) && mods.testFlag(Qt::ShiftModifier)) return QWidget::event(event);
        bool paging = key->key() == Qt::Key_PageUp || key->key() == Qt::Key_PageDown;
        if (paging && (mods & ~Qt::KeypadModifier) == Qt::ControlModifier) return QWidget::event(event);
        event->accept();
        return true;
    }
    if (event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab) {
            keyPressEvent(key);
            return true;
        }
    }
    return QWidget::event(event);
}

bool TerminalView::focusNextPrevChild(bool) { return false; }

void TerminalView::keyPressEvent(QKeyEvent* event) {
    Qt::KeyboardModifiers mods = event->modifiers();
    bool ctrl = mods.testFlag(Qt::ControlModifier), shift = mods.testFlag(Qt::ShiftModifier),
         alt = mods.testFlag(Qt::AltModifier);
    if (ctrl && shift && !alt) {
        if (event->key() == Qt::Key_C) return copySelection();
        if (event->key() == Qt::Key_V) return pasteClipboard();
        if (isApplicationShortcutChord(*event)) return event->ignore();
    }
    if (shift && !ctrl && !alt) {
        if (event->key() == Qt::Key_Insert) return pasteSelection();
        if (!terminal_->isAlternateBuffer()) {
            // Shift with the paging keys moves through the history, as desktop terminals do.
            int page = std::max(1, terminal_->rows() - 1);
            if (event->key() == Qt::Key_PageUp) return scrollLines(page);
            if (event->key() == Qt::Key_PageDown) return scrollLines(-page);
            if (event->key() == Qt::Key_Home) return scrollLines(terminal_->buffer().yBase);
            if (event->key() == Qt::Key_End) return scrollToBottom();
        }
    }
    auto input = keyInputFromEvent(*event);
    if (!input) return QWidget::keyPressEvent(event);
    std::string bytes = vellum::encodeKey(*input, {terminal_->applicationCursor, terminal_->applicationKeypad});
    if (bytes.empty()) return event->ignore();
    sendUserInput(bytes);
}

void TerminalView::inputMethodEvent(QInputMethodEvent* event) {
    if (!event->commitString().isEmpty()) sendUserInput(event->commitString().toStdString());
    if (preedit_ != event->preeditString()) {
        preedit_ = event->preeditString();
        const auto& cursor = snapshot_.state().cursor;
        repaintRows(cursor.y, cursor.y);
    }
    event->accept();
}

QVariant TerminalView::inputMethodQuery(Qt::InputMethodQuery query) const {
    switch (query) {
    case Qt::ImEnabled: return true;
    case Qt::ImCursorRectangle: return cursorRect();
    case Qt::ImFont: return painter_.font();
    case Qt::ImCursorPosition: return int(preedit_.size());
    case Qt::ImSurroundingText: return QString();
    case Qt::ImCurrentSelection: return QString::fromStdString(selectedText());
    case Qt::ImHints: return int(Qt::ImhNoPredictiveText | Qt::ImhNoAutoUppercase);
    default: return QWidget::inputMethodQuery(query);
    }
}

void TerminalView::focusInEvent(QFocusEvent* event) {
    QWidget::focusInEvent(event);
    terminal_->setFocused(true);
    restartBlink();
    const auto& cursor = snapshot_.state().cursor;
    repaintRows(cursor.y, cursor.y);
    if (onFocusIn) onFocusIn();
}

void TerminalView::focusOutEvent(QFocusEvent* event) {
    QWidget::focusOutEvent(event);
    terminal_->setFocused(false);
    blinkTimer_.stop();
    blinkVisible_ = true;
    const auto& cursor = snapshot_.state().cursor;
    repaintRows(cursor.y, cursor.y);
}

// ---- Pointer

TerminalView::CellHit TerminalView::hitTest(QPointF position) const {
    QSize cell = cellSize();
    int cols = terminal_->cols(), rows = terminal_->rows();
    CellHit hit;
    hit.row = std::clamp(int(std::floor(position.y() / cell.height())), 0, rows - 1);
    // Cells of a double-width or double-height row are twice as wide on the screen.
    double cellWidth = cell.width();
    if (size_t(hit.row) < snapshot_.rows().size() &&
        snapshot_.rows()[size_t(hit.row)].row.renderMode != vellum::BufferLine::RenderLineMode::single)
        cellWidth *= 2;
    hit.col = std::clamp(int(std::floor(position.x() / cellWidth)), 0, cols - 1);
    hit.boundaryCol = std::clamp(int(std::lround(position.x() / cellWidth)), 0, cols);
    return hit;
}

bool TerminalView::mouseReportsGo(Qt::KeyboardModifiers modifiers) const {
    if (!mouseReportingAllowed_ || terminal_->mouseMode == 0) return false;
    // Shift lets the user select in a program that takes the mouse, unless it asked for Shift too.
    return !modifiers.testFlag(Qt::ShiftModifier) || terminal_->mouseShiftCapture;
}

bool TerminalView::sendMouseReport(vellum::MouseAction action, vellum::MouseButton button, QPointF position,
                                   Qt::KeyboardModifiers modifiers) {
    CellHit hit = hitTest(position);
    vellum::MouseReport report{action, button, keyModifiers(modifiers), hit.col, hit.row,
                               std::max(0, int(position.x())), std::max(0, int(position.y()))};
    std::string bytes = vellum::encodeMouse(report, terminal_->mouseMode, terminal_->mouseProtocol);
    if (bytes.empty()) return false;
    if (onInput) onInput(std::vector<uint8_t>(bytes.begin(), bytes.end()));
    return true;
}

void TerminalView::mousePressEvent(QMouseEvent* event) {
    QPointF position = event->position();
    if (mouseReportsGo(event->modifiers())) {
        if (auto button = mouseButton(event->button())) {
            reportedButton_ = button;
            CellHit hit = hitTest(position);
            lastMotionCell_ = std::pair{hit.col, hit.row};
            sendMouseReport(vellum::MouseAction::press, *button, position, event->modifiers());
        }
        return;
    }
    if (event->button() == Qt::LeftButton && event->modifiers().testFlag(Qt::ControlModifier)) {
        if (auto url = linkAt(position)) {
            if (onOpenLink) onOpenLink(*url);
            else QDesktopServices::openUrl(QUrl(QString::fromStdString(*url)));
            return;
        }
    }
    if (event->button() == Qt::LeftButton) {
        bool triple = sinceDoubleClick_.isValid() && sinceDoubleClick_.elapsed() < QApplication::doubleClickInterval() &&
                      (position - doubleClickAt_).manhattanLength() < 6;
        sinceDoubleClick_.invalidate();
        selectAt(position, triple ? SelectionUnit::line : SelectionUnit::character);
    } else if (event->button() == Qt::MiddleButton) {
        pasteSelection();
    }
}

void TerminalView::mouseDoubleClickEvent(QMouseEvent* event) {
    if (mouseReportsGo(event->modifiers())) return mousePressEvent(event);
    if (event->button() != Qt::LeftButton) return;
    selectAt(event->position(), SelectionUnit::word);
    sinceDoubleClick_.start();
    doubleClickAt_ = event->position();
}

void TerminalView::mouseMoveEvent(QMouseEvent* event) {
    QPointF position = event->position();
    // An arrow says that the program has the mouse; a text beam that the mouse selects.
    Qt::CursorShape shape = mouseReportsGo(event->modifiers()) ? Qt::ArrowCursor : Qt::IBeamCursor;
    if (cursor().shape() != shape) setCursor(shape);
    bool anyMotion = terminal_->mouseMode == int(vellum::MouseTracking::anyEvent) && mouseReportsGo(event->modifiers());
    if (reportedButton_ || anyMotion) {
        CellHit hit = hitTest(position);
        if (lastMotionCell_ == std::pair{hit.col, hit.row}) return;
        lastMotionCell_ = std::pair{hit.col, hit.row};
        sendMouseReport(vellum::MouseAction::motion, reportedButton_.value_or(vellum::MouseButton::none), position,
                        event->modifiers());
        return;
    }
    if (selecting_ && event->buttons().testFlag(Qt::LeftButton)) {
        dragPosition_ = position;
        dragScrollLines_ = position.y() < 0 ? 1 : position.y() >= height() ? -1 : 0;
        if (dragScrollLines_ && !dragScroll_.isActive()) dragScroll_.start();
        extendSelectionTo(position);
    }
}

void TerminalView::dragScrollTick() {
    if (!selecting_ || dragScrollLines_ == 0) return dragScroll_.stop();
    scrollLines(dragScrollLines_);
    extendSelectionTo(dragPosition_);
}

void TerminalView::mouseReleaseEvent(QMouseEvent* event) {
    auto button = mouseButton(event->button());
    if (reportedButton_ && button == reportedButton_) {
        sendMouseReport(vellum::MouseAction::release, *button, event->position(), event->modifiers());
        reportedButton_.reset();
        return;
    }
    if (selecting_ && event->button() == Qt::LeftButton) {
        selecting_ = false;
        dragScroll_.stop();
        publishSelection();
    }
}

std::optional<std::string> TerminalView::linkAt(QPointF position) const {
    CellHit hit = hitTest(position);
    if (size_t(hit.row) >= snapshot_.rows().size()) return std::nullopt;
    const auto& cells = snapshot_.rows()[size_t(hit.row)].row.cells;
    if (!cells || size_t(hit.col) >= cells->size()) return std::nullopt;
    int col = hit.col;
    if (col > 0 && (*cells)[size_t(col)].widthState == vellum::RenderSnapshotWidthState::spacerTail) --col;
    auto code = (*cells)[size_t(col)].payloadID;
    if (!code) return std::nullopt;
    auto target = vellum::TinyAtom{*code}.target();
    const auto* payload = target ? std::any_cast<std::string>(&*target) : nullptr;
    if (!payload) return std::nullopt;
    return vellum::Terminal::parseHyperlinkPayload(*payload);
}

void TerminalView::selectAt(QPointF position, SelectionUnit unit) {
    CellHit hit = hitTest(position);
    int row = historyTopRow() + hit.row;
    selection_.begin(terminal_->buffer(), {row, hit.col}, {row, hit.boundaryCol}, unit);
    selecting_ = true;
    update();
}

void TerminalView::extendSelectionTo(QPointF position) {
    CellHit hit = hitTest(position);
    int row = historyTopRow() + hit.row;
    auto before = selection_.range();
    selection_.extend(terminal_->buffer(), {row, hit.col}, {row, hit.boundaryCol});
    if (selection_.range() != before) update();
}

void TerminalView::publishSelection() {
    QClipboard* clipboard = QGuiApplication::clipboard();
    std::string text = selectedText();
    if (!text.empty() && clipboard->supportsSelection())
        clipboard->setText(QString::fromStdString(text), QClipboard::Selection);
}

std::string TerminalView::selectedText() const { return selection_.text(terminal_->buffer()); }

void TerminalView::clearSelection() {
    if (!selection_.range()) return;
    selection_.clear();
    update();
}

void TerminalView::copySelection() {
    std::string text = selectedText();
    if (!text.empty()) QGuiApplication::clipboard()->setText(QString::fromStdString(text));
}

void TerminalView::pasteClipboard() { paste(QGuiApplication::clipboard()->text().toStdString()); }

void TerminalView::pasteSelection() {
    QClipboard* clipboard = QGuiApplication::clipboard();
    paste(clipboard->text(clipboard->supportsSelection() ? QClipboard::Selection : QClipboard::Clipboard).toStdString());
}

void TerminalView::paste(const std::string& text) {
    if (text.empty()) return;
    sendUserInput(vellum::encodePaste(text, terminal_->bracketedPasteMode));
}

void TerminalView::wheelEvent(QWheelEvent* event) {
    event->accept();
    QPoint pixels = event->pixelDelta(), angle = event->angleDelta();
    // Pixel deltas come from touchpads; a wheel gives eighths of a degree, 120 to a notch, and
    // a high-resolution wheel gives parts of a notch, which accumulate like a touchpad's.
    bool precise = !pixels.isNull() || angle.y() % 120 != 0;
    double deltaY = !pixels.isNull() ? pixels.y() : angle.y() / 120.0;
    int cellHeight = cellSize().height();
    if (deltaY == 0 || cellHeight <= 0) return;
    vellum::WheelRoute route = vellum::chooseWheelRoute({
        .bypass = event->modifiers().testFlag(Qt::ShiftModifier) && !terminal_->mouseShiftCapture,
        .reportingAllowed = mouseReportingAllowed_,
        .mouseMode = terminal_->mouseMode,
        .alternateBuffer = terminal_->isAlternateBuffer(),
        .alternateScroll = terminal_->alternateScrollMode,
    });
    if (route == vellum::WheelRoute::none) return;
    int lines = 0;
    if (precise) {
        double distance = !pixels.isNull() ? deltaY : deltaY * wheelLinesPerNotch;
        lines = wheelAccumulator_.takeWholeLines(route, distance, !pixels.isNull() ? cellHeight : 1.0);
    } else {
        wheelAccumulator_.clear();
        lines = vellum::notchLines(deltaY * wheelLinesPerNotch, deltaY);
    }
    if (lines == 0) return;
    bool up = lines > 0;
    int count = std::abs(lines);
    switch (route) {
    case vellum::WheelRoute::localScrollback: scrollLines(lines); break;
    case vellum::WheelRoute::mouse: {
        int granted = wheelBudget_.grant(std::min(count, vellum::WheelReportBudget::maximumPerEvent),
                                         uint64_t(clock_.nsecsElapsed()));
        for (int i = 0; i < granted; ++i)
            sendMouseReport(vellum::MouseAction::press, up ? vellum::MouseButton::wheelUp : vellum::MouseButton::wheelDown,
                            event->position(), event->modifiers());
        break;
    }
    case vellum::WheelRoute::cursorKeys: {
        vellum::KeyInput key;
        key.key = up ? vellum::TerminalKey::up : vellum::TerminalKey::down;
        std::string one = vellum::encodeKey(key, {terminal_->applicationCursor, terminal_->applicationKeypad});
        std::string bytes;
        for (int i = 0; i < count; ++i) bytes += one;
        if (onInput) onInput(std::vector<uint8_t>(bytes.begin(), bytes.end()));
        break;
    }
    case vellum::WheelRoute::none: break;
    }
}

} // namespace corvex
