#include "Corvex/Theme.h"

#include <QPainter>
#include <QPixmap>

namespace corvex::theme {

namespace {

const QColor success(0x3f, 0xb9, 0x50);
const QColor warning(0xd2, 0x99, 0x22);
const QColor danger(0xe5, 0x48, 0x4d);
const QColor dim(0x8b, 0x8b, 0x8b);
const QColor accent(0x4a, 0x90, 0xd9);

} // namespace

QColor statusColor(SidebarStatus::Dot dot) {
    switch (dot) {
    case SidebarStatus::Dot::success: return success;
    case SidebarStatus::Dot::warning: return warning;
    case SidebarStatus::Dot::danger: return danger;
    case SidebarStatus::Dot::dim: break;
    }
    return dim;
}

QColor agentColor(AgentColor color) {
    switch (color) {
    case AgentColor::accent: return accent;
    case AgentColor::warning: return warning;
    case AgentColor::success: return success;
    case AgentColor::danger: return danger;
    case AgentColor::dimText: break;
    }
    return dim;
}

QIcon dot(const QColor& color) {
    QPixmap pixmap(12, 12);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawEllipse(QRectF(2, 2, 8, 8));
    return QIcon(pixmap);
}

} // namespace corvex::theme
