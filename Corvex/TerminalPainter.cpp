#include "Corvex/TerminalPainter.h"

#include <QFontMetrics>
#include <QFontMetricsF>
#include <QPaintDevice>
#include <QPainter>
#include <QPainterPath>
#include <QtMath>

#include "Corvex/TerminalBoxDrawing.h"
#include "Platform/Unicode.h"

namespace corvex {

namespace {

QColor toQColor(vellum::Color color) { return QColor(color.red >> 8, color.green >> 8, color.blue >> 8); }

QColor blend(const QColor& a, const QColor& b, double t) {
    return QColor(int(a.red() * (1 - t) + b.red() * t), int(a.green() * (1 - t) + b.green() * t),
                  int(a.blue() * (1 - t) + b.blue() * t));
}

// The one scalar of a cell's UTF-8 text, or nothing for a cluster.
std::optional<char32_t> singleScalar(const std::string& text) {
    QString q = QString::fromStdString(text);
    auto scalars = q.toUcs4();
    if (scalars.size() != 1) return std::nullopt;
    return char32_t(scalars[0]);
}

// Lines, blocks and Powerline separators are drawn to the cell rather than taken from a font.
std::optional<char32_t> boxCharacter(const std::string& text) {
    if (text.size() != 3) return std::nullopt;
    auto step = platform::unicode::decodeUtf8Scalar(text);
    if (step.length != 3 || !isBoxCharacter(step.scalar)) return std::nullopt;
    return step.scalar;
}

// Emoji shown as pictures: wide pictographs, flags, and anything asking for emoji presentation.
bool isColorEmoji(const vellum::RenderSnapshotCell& cell) {
    if (cell.text.empty()) return false;
    auto scalars = QString::fromStdString(cell.text).toUcs4();
    if (scalars.isEmpty()) return false;
    if (scalars.contains(0xFE0F)) return true;
    char32_t first = char32_t(scalars[0]);
    return cell.width == 2 && (platform::unicode::isExtendedPictographic(first) || platform::unicode::isRegionalIndicator(first));
}

} // namespace

TerminalPainter::TerminalPainter() {
    QFont font(QStringLiteral("DejaVu Sans Mono"));
    font.setPointSizeF(13);
    setFont(font);
}

void TerminalPainter::setFont(const QFont& requested) {
    QFont base = requested;
    base.setStyleHint(QFont::TypeWriter);
    base.setFixedPitch(true);
    base.setKerning(false);
    base.setLetterSpacing(QFont::AbsoluteSpacing, 0);
    QFontMetricsF metrics(base);
    double advance = metrics.horizontalAdvance(QLatin1Char('M'));
    int width = std::max(1, qCeil(advance - 0.001));
    int height = std::max(1, qCeil(metrics.height() - 0.001));
    // Whole-pixel cells: the spacing makes every glyph's advance exactly one cell, so that a run
    // of text drawn at once stays on the grid.
    base.setLetterSpacing(QFont::AbsoluteSpacing, width - advance);
    fonts_[0] = base;
    fonts_[1] = base;
    fonts_[1].setBold(true);
    fonts_[2] = base;
    fonts_[2].setItalic(true);
    fonts_[3] = fonts_[1];
    fonts_[3].setItalic(true);
    emojiFont_ = QFont();
    emojiFont_.setFamilies({QStringLiteral("Noto Color Emoji"), QStringLiteral("Apple Color Emoji"),
                            QStringLiteral("Twemoji"), QStringLiteral("Segoe UI Emoji"), base.family()});
    emojiFont_.setPixelSize(std::max(1, qRound(metrics.ascent() + metrics.descent())));
    cell_ = QSize(width, height);
    ascent_ = qRound(metrics.ascent());
    underlinePos_ = std::max(1, qRound(metrics.underlinePos()));
    lineWidth_ = std::max(1, qRound(metrics.lineWidth()));
    strikePos_ = qRound(metrics.strikeOutPos());
    inMainFont_.clear();
}

QColor TerminalPainter::defaultForeground(const vellum::TerminalRenderSnapshot& state) {
    return toQColor(state.reverseVideo ? state.backgroundColor : state.foregroundColor);
}

QColor TerminalPainter::defaultBackground(const vellum::TerminalRenderSnapshot& state) {
    return toQColor(state.reverseVideo ? state.foregroundColor : state.backgroundColor);
}

TerminalPainter::CellLook TerminalPainter::look(const vellum::RenderSnapshotCell& cell,
                                                const vellum::TerminalRenderSnapshot& state, bool selected) const {
    using Kind = vellum::Attribute::Color::Kind;
    QColor defaultFg = defaultForeground(state), defaultBg = defaultBackground(state);
    auto resolve = [&](vellum::Attribute::Color color, bool foreground) {
        switch (color.kind()) {
        case Kind::ansi256: return toQColor(state.palette[color.code()]);
        case Kind::trueColor: return QColor(color.red(), color.green(), color.blue());
        case Kind::defaultColor: return foreground ? defaultFg : defaultBg;
        case Kind::defaultInvertedColor: return foreground ? defaultBg : defaultFg;
        }
        return foreground ? defaultFg : defaultBg;
    };
    const vellum::Attribute& a = cell.attribute;
    CellLook out;
    out.fg = resolve(a.fg, true);
    out.bg = resolve(a.bg, false);
    out.defaultBackground = a.bg.kind() == Kind::defaultColor;
    if (a.style.contains(vellum::CharacterStyle::inverse) != selected) {
        std::swap(out.fg, out.bg);
        out.defaultBackground = false;
    }
    if (a.style.contains(vellum::CharacterStyle::dim)) out.fg = blend(out.fg, out.bg, 0.5);
    if (a.style.contains(vellum::CharacterStyle::invisible)) out.fg = out.bg;
    out.fontIndex = (a.style.contains(vellum::CharacterStyle::bold) ? 1 : 0) | (a.style.contains(vellum::CharacterStyle::italic) ? 2 : 0);
    out.underline = a.underlineStyle;
    if (out.underline == vellum::UnderlineStyle::none && a.style.contains(vellum::CharacterStyle::underline))
        out.underline = vellum::UnderlineStyle::single;
    // Links a program printed are marked the way desktop terminals mark them.
    if (out.underline == vellum::UnderlineStyle::none && cell.payloadID) out.underline = vellum::UnderlineStyle::dashed;
    if (out.underline != vellum::UnderlineStyle::none) out.underlineColor = a.underlineColor ? resolve(*a.underlineColor, true) : out.fg;
    out.strike = a.style.contains(vellum::CharacterStyle::crossedOut);
    return out;
}

bool TerminalPainter::fitsGrid(const vellum::RenderSnapshotCell& cell) {
    if (cell.width != 1) return false;
    if (cell.text.size() == 1) return true; // ASCII: the main font has it
    auto scalar = singleScalar(cell.text);
    if (!scalar) return false;
    auto found = inMainFont_.find(*scalar);
    if (found != inMainFont_.end()) return found->second;
    bool has = QFontMetrics(fonts_[0]).inFontUcs4(uint(*scalar));
    inMainFont_.emplace(*scalar, has);
    return has;
}

void TerminalPainter::paintRow(QPainter& painter, const vellum::TerminalSnapshot& snapshot, int y, const RowOverlay& overlay) {
    const vellum::TerminalRenderSnapshot& state = snapshot.state();
    int cw = cell_.width(), ch = cell_.height(), top = y * ch;
    painter.fillRect(QRect(0, top, painter.device()->width(), ch), defaultBackground(state));
    if (y < 0 || y >= int(snapshot.rows().size())) return;
    const vellum::RenderSnapshotRow& row = snapshot.rows()[size_t(y)].row;
    painter.save();
    applyLineMode(painter, row.renderMode, top);
    static const std::vector<vellum::RenderSnapshotCell> noCells;
    const auto& cells = row.cells ? *row.cells : noCells;
    int cols = std::min(int(cells.size()), state.cols);

    std::vector<CellLook> looks(static_cast<size_t>(cols));
    for (int col = 0; col < cols; ++col) {
        bool selected = overlay.selection && col >= overlay.selection->first && col < overlay.selection->second;
        looks[size_t(col)] = look(cells[size_t(col)], state, selected);
    }
    for (int start = 0; start < cols;) {
        const CellLook& runLook = looks[size_t(start)];
        int end = start + 1;
        while (end < cols && looks[size_t(end)] == runLook) ++end;
        if (!runLook.defaultBackground) painter.fillRect(QRect(start * cw, top, (end - start) * cw, ch), runLook.bg);
        painter.setFont(fonts_[size_t(runLook.fontIndex)]);
        painter.setPen(runLook.fg);
        QString segment;
        int segmentStart = start;
        auto flush = [&] {
            if (!segment.isEmpty()) painter.drawText(QPointF(segmentStart * cw, top + ascent_), segment);
            segment.clear();
        };
        for (int col = start; col < end; ++col) {
            const vellum::RenderSnapshotCell& cell = cells[size_t(col)];
            if (cell.widthState == vellum::RenderSnapshotWidthState::spacerTail) continue;
            if (cell.text.empty()) {
                if (!segment.isEmpty()) segment += QLatin1Char(' ');
                continue;
            }
            if (auto box = boxCharacter(cell.text)) {
                flush();
                drawBoxCharacter(painter, *box, QRect(col * cw, top, cw * std::max(1, cell.width), ch), runLook.fg);
                continue;
            }
            if (fitsGrid(cell)) {
                if (segment.isEmpty()) segmentStart = col;
                if (cell.text.size() == 1) segment += QLatin1Char(cell.text[0]);
                else segment += QString::fromStdString(cell.text);
                continue;
            }
            flush();
            drawCellText(painter, cell, runLook.fontIndex, col * cw, top);
        }
        flush();
        drawDecorations(painter, runLook, start * cw, (end - start) * cw, top);
        start = end;
    }
    if (!overlay.preedit.isEmpty()) {
        drawPreedit(painter, state, overlay.preedit, top);
    } else if (overlay.cursor) {
        int x = state.cursor.x;
        drawCursor(painter, state, overlay, x < cols ? &cells[size_t(x)] : nullptr, top);
    }
    painter.restore();
}

void TerminalPainter::applyLineMode(QPainter& painter, vellum::BufferLine::RenderLineMode mode, int top) const {
    using Mode = vellum::BufferLine::RenderLineMode;
    if (mode == Mode::single) return;
    int ch = cell_.height();
    painter.setClipRect(QRect(0, top, painter.device()->width(), ch), Qt::IntersectClip);
    // Double width draws the row's cells twice as wide; double height draws them twice as tall
    // and shows the top or the bottom half in this row.
    QTransform transform;
    if (mode == Mode::doubledTop) transform.translate(0, top);
    if (mode == Mode::doubledDown) transform.translate(0, top - ch);
    transform.scale(2, mode == Mode::doubleWidth ? 1 : 2);
    if (mode != Mode::doubleWidth) transform.translate(0, -top);
    painter.setTransform(transform, true);
}

void TerminalPainter::drawCellText(QPainter& painter, const vellum::RenderSnapshotCell& cell, int fontIndex, int x, int top) {
    QString text = QString::fromStdString(cell.text);
    bool emoji = isColorEmoji(cell);
    const QFont& font = emoji ? emojiFont_ : fonts_[size_t(fontIndex)];
    double room = std::max(1, cell.width) * cell_.width();
    double advance = QFontMetricsF(font).horizontalAdvance(text);
    if (emoji) painter.setFont(font);
    if (advance <= room + 0.5) {
        painter.drawText(QPointF(x, top + ascent_), text);
    } else {
        // A glyph from a fallback font that is wider than its cells is shrunk about its baseline.
        double scale = room / advance;
        painter.save();
        painter.translate(x, top + ascent_);
        painter.scale(scale, scale);
        painter.drawText(QPointF(0, 0), text);
        painter.restore();
    }
    if (emoji) painter.setFont(fonts_[size_t(fontIndex)]);
}

void TerminalPainter::drawDecorations(QPainter& painter, const CellLook& look, int x, int width, int top) {
    int ch = cell_.height();
    if (look.underline != vellum::UnderlineStyle::none) {
        int uy = std::min(top + ascent_ + underlinePos_, top + ch - lineWidth_);
        switch (look.underline) {
        case vellum::UnderlineStyle::double_:
            uy = std::min(uy, top + ch - 3 * lineWidth_);
            painter.fillRect(QRect(x, uy, width, lineWidth_), look.underlineColor);
            painter.fillRect(QRect(x, uy + 2 * lineWidth_, width, lineWidth_), look.underlineColor);
            break;
        case vellum::UnderlineStyle::curly: {
            QPainterPath wave;
            double amplitude = std::max(1.0, lineWidth_ * 1.5), period = std::max(4, cell_.width() / 2);
            double mid = std::min(double(uy), top + ch - amplitude - 1);
            wave.moveTo(x, mid);
            for (double px = x; px < x + width; px += period / 2)
                wave.quadTo(px + period / 4, mid + (int((px - x) / (period / 2)) % 2 ? amplitude : -amplitude) * 2,
                            px + period / 2, mid);
            painter.save();
            painter.setRenderHint(QPainter::Antialiasing);
            painter.setPen(QPen(look.underlineColor, lineWidth_));
            painter.setBrush(Qt::NoBrush);
            painter.drawPath(wave);
            painter.restore();
            break;
        }
        case vellum::UnderlineStyle::dotted:
        case vellum::UnderlineStyle::dashed:
            painter.save();
            painter.setPen(QPen(look.underlineColor, lineWidth_,
                                look.underline == vellum::UnderlineStyle::dotted ? Qt::DotLine : Qt::DashLine));
            painter.drawLine(x, uy, x + width - 1, uy);
            painter.restore();
            break;
        default: painter.fillRect(QRect(x, uy, width, lineWidth_), look.underlineColor); break;
        }
    }
    if (look.strike) painter.fillRect(QRect(x, top + ascent_ - strikePos_, width, lineWidth_), look.fg);
}

void TerminalPainter::drawCursor(QPainter& painter, const vellum::TerminalRenderSnapshot& state, const RowOverlay& overlay,
                                 const vellum::RenderSnapshotCell* cell, int top) {
    int cw = cell_.width(), ch = cell_.height();
    int x = state.cursor.x * cw;
    int width = cw * (cell && cell->width == 2 ? 2 : 1);
    QColor color = state.cursorColor ? toQColor(*state.cursorColor) : defaultForeground(state);
    if (!overlay.focused) {
        painter.save();
        painter.setPen(QPen(color, 1));
        painter.setBrush(Qt::NoBrush);
        painter.drawRect(QRect(x, top, width - 1, ch - 1));
        painter.restore();
        return;
    }
    switch (state.cursor.style) {
    case vellum::CursorStyle::blinkBar:
    case vellum::CursorStyle::steadyBar: painter.fillRect(QRect(x, top, std::max(2, lineWidth_ * 2), ch), color); break;
    case vellum::CursorStyle::blinkUnderline:
    case vellum::CursorStyle::steadyUnderline:
        painter.fillRect(QRect(x, top + ch - std::max(2, lineWidth_ * 2), width, std::max(2, lineWidth_ * 2)), color);
        break;
    default: {
        painter.fillRect(QRect(x, top, width, ch), color);
        if (cell && !cell->text.empty()) {
            CellLook under = look(*cell, state, false);
            painter.setFont(fonts_[size_t(under.fontIndex)]);
            QColor ink = under.defaultBackground ? defaultBackground(state) : under.bg;
            if (auto box = boxCharacter(cell->text)) {
                drawBoxCharacter(painter, *box, QRect(x, top, width, ch), ink);
                break;
            }
            painter.setPen(ink);
            painter.drawText(QPointF(x, top + ascent_), QString::fromStdString(cell->text));
        }
        break;
    }
    }
}

void TerminalPainter::drawPreedit(QPainter& painter, const vellum::TerminalRenderSnapshot& state, const QString& text, int top) {
    int cw = cell_.width(), ch = cell_.height();
    int x = state.cursor.x * cw;
    int width = std::max(cw, qCeil(QFontMetricsF(fonts_[0]).horizontalAdvance(text) / cw) * cw);
    QColor fg = defaultForeground(state);
    painter.fillRect(QRect(x, top, width, ch), defaultBackground(state));
    painter.setFont(fonts_[0]);
    painter.setPen(fg);
    painter.drawText(QPointF(x, top + ascent_), text);
    painter.fillRect(QRect(x, std::min(top + ascent_ + underlinePos_, top + ch - lineWidth_), width, lineWidth_), fg);
}

} // namespace corvex
