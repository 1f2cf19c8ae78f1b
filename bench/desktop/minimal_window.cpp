// The yardstick for the app's start-up: the least a Qt Widgets window does before it is mapped.
#include <QApplication>
#include <QListWidget>
#include <QMainWindow>
#include <QPlainTextEdit>
#include <QSplitter>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QMainWindow window;
    window.setWindowTitle(QStringLiteral("Minimal"));
    auto* splitter = new QSplitter(&window);
    splitter->addWidget(new QListWidget(splitter));
    splitter->addWidget(new QPlainTextEdit(splitter));
    window.setCentralWidget(splitter);
    window.resize(1000, 700);
    window.show();
    return QApplication::exec();
}
