#pragma once

#include <QColor>
#include <QIcon>

#include "CorvexKit/AgentRules.h"
#include "CorvexKit/WindowModel.h"

namespace corvex::theme {

QColor statusColor(SidebarStatus::Dot dot);
QColor agentColor(AgentColor color);
// A small filled circle, for status and agent badges.
QIcon dot(const QColor& color);

} // namespace corvex::theme
