#include "Corvex/QtMainQueue.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

namespace corvex {

void QtMainQueue::post(std::function<void()> work) {
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(work), Qt::QueuedConnection);
}

void QtMainQueue::postAfter(platform::Duration delay, std::function<void()> work) {
    auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(delay);
    // A timer belongs to the thread that starts it, so it is started on the main thread.
    post([milliseconds, work = std::move(work)]() mutable {
        QTimer::singleShot(milliseconds, QCoreApplication::instance(), std::move(work));
    });
}

bool QtMainQueue::isMainThread() const {
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

} // namespace corvex
