#include "Corvex/Screenshot.h"

#include <QMainWindow>
#include <QPixmap>
#include <QTimer>
#include <cstdlib>

#include "Corvex/AppDelegate.h"

namespace corvex {

void scheduleScreenshotFromEnvironment(AppDelegate& delegate) {
    const char* path = std::getenv("CORVEX_SCREENSHOT");
    if (!path || !*path) return;
    const char* delay = std::getenv("CORVEX_SCREENSHOT_DELAY");
    int milliseconds = delay && *delay ? std::atoi(delay) : 3000;
    QString target = QString::fromLocal8Bit(path);
    QTimer::singleShot(milliseconds, &delegate, [&delegate, target] {
        if (QMainWindow* window = delegate.window()) window->grab().save(target, "PNG");
    });
}

} // namespace corvex
