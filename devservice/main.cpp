#include "log.h"
#include "options.h"
#include "service.h"

#include <QCoreApplication>
#include <csignal>
#include <cstdio>
#include <future>
#include <pthread.h>
#include <thread>

using namespace kestrolan::devservice;

namespace {

void print(std::FILE* stream, const QString& text) {
    std::fputs(text.toLocal8Bit().constData(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

} // namespace

int main(int argc, char** argv) {
    // Termination signals are taken by the main thread with sigwait, never by a handler in
    // whatever thread is running: every thread started from here inherits the blocked set.
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGINT);
    sigaddset(&termination, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &termination, nullptr);
    // A client that hangs up mid-stream must cost a failed write, not the process.
    std::signal(SIGPIPE, SIG_IGN);

    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kestrolan-devservice"));
    QCoreApplication::setApplicationVersion(QStringLiteral("0.1.0"));

    const auto parsed = Options::parse(QCoreApplication::arguments());
    if (const auto* exit = std::get_if<Options::Exit>(&parsed)) {
        print(exit->status == 0 ? stdout : stderr, exit->message);
        return exit->status;
    }
    const auto& options = std::get<Options>(parsed);

    std::unique_ptr<Service> service;
    try {
        service = std::make_unique<Service>(options);
    } catch (const std::exception& error) {
        print(stderr, QStringLiteral("kestrolan-devservice: ") + QString::fromUtf8(error.what()));
        return 1;
    }
    print(stdout, QStringLiteral("kestrolan-devservice listening on ") + service->baseUrl());
    print(stdout, QStringLiteral("Data directory: ") + options.dataDirectory);

    std::promise<bool> served;
    auto finished = served.get_future();
    std::thread listener([&] { served.set_value(service->run()); });

    bool signalled = false;
    while (finished.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        timespec wait{0, 200'000'000};
        const auto signal = sigtimedwait(&termination, nullptr, &wait);
        if (signal == SIGINT || signal == SIGTERM) {
            signalled = true;
            qCInfo(serviceLog) << "Stopping on signal" << signal;
            break;
        }
    }
    // stop() before the server has started listening is lost: repeat until it has returned.
    do
        service->stop();
    while (finished.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready);
    listener.join();
    const auto servedWell = finished.get();
    service.reset();
    print(stdout, QStringLiteral("kestrolan-devservice stopped"));
    return signalled && servedWell ? 0 : 1;
}
