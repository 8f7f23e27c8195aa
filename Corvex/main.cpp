#include <QApplication>
#include <QTimer>

#include "Corvex/AppDelegate.h"
#include "Corvex/Screenshot.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setOrganizationName("Corvex");
    QApplication::setApplicationName("Corvex");
#ifdef CORVEX_DEV_BUILD
    constexpr bool developmentBuild = true;
#else
    constexpr bool developmentBuild = false;
#endif
    corvex::AppDelegate delegate(corvex::AppDelegate::Options{developmentBuild, {}});
    delegate.launch();
    corvex::scheduleScreenshotFromEnvironment(delegate);
    return QApplication::exec();
}
