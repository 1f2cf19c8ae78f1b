#include "screen_grab.h"

#include <QCoreApplication>
#include <QDir>
#include <QPixmap>
#include <QScreen>
#include <QThread>
#include <QWidget>
#include <cstdio>

namespace kestrolan::screenshots {

namespace {
QString outputDirectory = QStringLiteral("screenshots");
}

void setOutputDirectory(const QString& directory) {
    outputDirectory = directory;
    QDir().mkpath(outputDirectory);
}

void settle() {
    for (int i = 0; i < 20; ++i) {
        QCoreApplication::processEvents();
        QThread::msleep(10);
    }
}

void shoot(QWidget& window, const QString& name) {
    settle();
    const QRect frame = window.frameGeometry();
    const QPixmap picture =
        window.screen()->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height());
    const QString path = outputDirectory + u'/' + name + u".png";
    if (!picture.save(path))
        std::fprintf(stderr, "could not write %s\n", qPrintable(path));
    else
        std::printf("%s\n", qPrintable(path));
}

} // namespace kestrolan::screenshots
