#include <QApplication>
#include <QMainWindow>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setOrganizationName("Corvex");
    QApplication::setApplicationName("Corvex");
    QMainWindow window;
    window.setWindowTitle("Corvex");
    window.resize(1200, 800);
    window.show();
    return QApplication::exec();
}
