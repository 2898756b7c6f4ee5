// Saves the whole KWin output, or the active window alone, as a PNG through KWin's own
// screenshot service, which sees native Wayland windows and XWayland's alike (an X11 capture
// would see only the latter). The two are what a screen share of the whole screen and of one
// window show.
//
//   e2e_kwin_screenshot [--active-window] OUTPUT.png
//
// KWin answers without asking the user when KWIN_SCREENSHOT_NO_PERMISSION_CHECKS is set.
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusUnixFileDescriptor>
#include <QImage>

#include <cstdio>
#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const bool activeWindow = argc == 3 && qstrcmp(argv[1], "--active-window") == 0;
    if (argc != 2 && !activeWindow) {
        std::fprintf(stderr, "usage: %s [--active-window] OUTPUT.png\n", argv[0]);
        return 2;
    }
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return 1;
    QDBusPendingCall pending = [&] {
        auto call = QDBusMessage::createMethodCall(u"org.kde.KWin"_s, u"/org/kde/KWin/ScreenShot2"_s,
                                                   u"org.kde.KWin.ScreenShot2"_s,
                                                   activeWindow ? u"CaptureActiveWindow"_s : u"CaptureWorkspace"_s);
        call << QVariantMap{{u"native-resolution"_s, true}}
             << QVariant::fromValue(QDBusUnixFileDescriptor(pipeFds[1]));
        return QDBusConnection::sessionBus().asyncCall(call, 20000);
    }();
    // KWin writes the image while we read: it does not fit a pipe's buffer. Every copy of the
    // write end here is closed (the message's went with it), so the end of KWin's is the end.
    close(pipeFds[1]);
    QByteArray data;
    char buffer[65536];
    pollfd readable{pipeFds[0], POLLIN, 0};
    while (poll(&readable, 1, 20000) > 0) {
        const ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
        if (n <= 0)
            break;
        data.append(buffer, n);
    }
    close(pipeFds[0]);
    pending.waitForFinished();
    const QDBusMessage reply = pending.reply();
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        std::fprintf(stderr, "no screenshot: %s\n", qPrintable(reply.errorMessage()));
        return 1;
    }
    const QVariantMap results = qdbus_cast<QVariantMap>(reply.arguments().first());
    const int width = results.value(u"width"_s).toInt();
    const int height = results.value(u"height"_s).toInt();
    const int stride = results.value(u"stride"_s).toInt();
    const auto format = QImage::Format(results.value(u"format"_s).toInt());
    if (width <= 0 || height <= 0 || data.size() < qsizetype(stride) * height) {
        std::fprintf(stderr, "a short image: %dx%d, %lld bytes\n", width, height, static_cast<long long>(data.size()));
        return 1;
    }
    const QImage image(reinterpret_cast<const uchar*>(data.constData()), width, height, stride, format);
    return image.save(QString::fromLocal8Bit(argv[argc - 1])) ? 0 : 1;
}
