#include "platform/portal/UinputKeystrokeSender.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QtTest>

#include <fcntl.h>
#include <linux/input.h>
#include <poll.h>
#include <unistd.h>

using namespace dictora;
using dictora::portal::UinputKeystrokeSender;

namespace {
// The event node the kernel made for our virtual keyboard, from the input device list.
QString eventNodeOf(const QString &deviceName)
{
    QFile devices(QStringLiteral("/proc/bus/input/devices"));
    if (!devices.open(QIODevice::ReadOnly))
        return {};
    bool ours = false;
    for (const QByteArray &line : devices.readAll().split('\n')) {
        if (line.startsWith("N: Name="))
            ours = line.contains(deviceName.toUtf8());
        if (ours && line.startsWith("H: Handlers=")) {
            for (const QByteArray &handler : line.mid(12).split(' '))
                if (handler.startsWith("event"))
                    return QStringLiteral("/dev/input/") + QString::fromLatin1(handler);
        }
    }
    return {};
}
} // namespace

// The kernel's view of what the virtual keyboard typed: the same events a
// compositor reads through libinput.
class TestUinputKeystroke : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void typesThePasteChord_data()
    {
        QTest::addColumn<int>("keystroke");
        QTest::addColumn<QString>("expected");
        QTest::newRow("ctrl+v") << int(PasteKeystroke::controlV) << "29+ 47+ 47- 29-";
        QTest::newRow("ctrl+shift+v") << int(PasteKeystroke::controlShiftV) << "29+ 42+ 47+ 47- 42- 29-";
    }

    void typesThePasteChord()
    {
        QFETCH(int, keystroke);
        QFETCH(QString, expected);
        UinputKeystrokeSender sender;
        QVERIFY2(sender.isOpen(), qPrintable(sender.failureReason()));
        QString node;
        QVERIFY(QTest::qWaitFor([&] { return !(node = eventNodeOf(UinputKeystrokeSender::kDeviceName)).isEmpty(); }, 5000));
        QVERIFY(QTest::qWaitFor([&] { return QFile::exists(node); }, 5000));
        const int fd = ::open(QFile::encodeName(node).constData(), O_RDONLY | O_NONBLOCK);
        QVERIFY2(fd >= 0, "the event node cannot be read");
        QVERIFY(sender.send(PasteKeystroke(keystroke)));
        QStringList keys;
        pollfd p{fd, POLLIN, 0};
        while (keys.size() < expected.count(' ') + 1 && ::poll(&p, 1, 2000) > 0) {
            input_event event{};
            while (::read(fd, &event, sizeof event) == sizeof event) {
                if (event.type == EV_KEY)
                    keys << QString::number(event.code) + (event.value ? "+" : "-");
            }
        }
        ::close(fd);
        QCOMPARE(keys.join(' '), expected);
    }
};

int main(int argc, char **argv)
{
    if (const QString why = UinputKeystrokeSender::accessProblem(); !why.isEmpty())
        return dictora::test::skipAll(qPrintable(why));
    QCoreApplication app(argc, argv);
    TestUinputKeystroke tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_uinput_keystroke.moc"
