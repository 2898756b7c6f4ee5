// Spoken questions played by Qt Multimedia into the private sound server of the CTest fixture
// "Pulse" (scripts/test-pulse.sh), from speech the test makes with espeak-ng and GStreamer's MP3
// encoder; and the camera service on a machine without a camera.

#include "QtTTSPlayer.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "PrivateSoundServer.h"
#include "QtCameraService.h"

#include <QCameraDevice>
#include <QElapsedTimer>
#include <QFile>
#include <QMediaDevices>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int playDeadlineMs = 30'000;
const QString sentence =
    u"Tell me about a project you are proud of, and what you would do differently."_s;

QString run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(30'000);
    EXPECT_EQ(process.exitCode(), 0)
        << program.toStdString() << ": " << process.readAllStandardError().toStdString();
    return QString::fromUtf8(process.readAllStandardOutput());
}

} // namespace

class QtTTSPlayerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const auto missing =
                usePrivateSoundServer(qEnvironmentVariable("RAVLET_PULSE_STATE"),
                                      {u"espeak-ng"_s, u"gst-launch-1.0"_s, u"pactl"_s});
            !missing.isEmpty())
            GTEST_SKIP() << missing.toStdString();

        ASSERT_TRUE(dir.isValid());
        wav = dir.filePath(u"question.wav"_s);
        mp3 = dir.filePath(u"question.mp3"_s);
        run(u"espeak-ng"_s, {u"-w"_s, wav, sentence});
        run(u"gst-launch-1.0"_s, {u"-q"_s, u"filesrc"_s, u"location="_s + wav, u"!"_s,
                                  u"wavparse"_s, u"!"_s, u"audioconvert"_s, u"!"_s, u"lamemp3enc"_s,
                                  u"!"_s, u"filesink"_s, u"location="_s + mp3});
    }

    static QByteArray read(const QString& path)
    {
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
        return file.readAll();
    }
    // espeak-ng writes 22,050 Hz 16-bit mono after a 44-byte header.
    double speechSeconds() const { return double(read(wav).size() - 44) / (22'050 * 2); }

    QTemporaryDir dir;
    QString wav;
    QString mp3;
    SystemClock clock;
};

// The server's WAV is heard through the whole-product test; here the MP3 a vendor's speech
// would be, and the level the portrait moves with, which only the program sees.
TEST_F(QtTTSPlayerTest, PlaysMp3ToTheEndWithItsLevel)
{
    const double seconds = speechSeconds();
    ASSERT_GT(seconds, 2.0);
    QtTTSPlayer player(clock);
    double peak = 0;
    QObject::connect(&player, &TTSPlayer::levelChanged,
                     [&] { peak = std::max(peak, player.level()); });
    QElapsedTimer elapsed;
    elapsed.start();
    awaitTask(player.play(read(mp3)), playDeadlineMs);
    // Played in real time to the end, not cut short (the server's buffer makes the last part
    // end early by its latency).
    EXPECT_GE(elapsed.elapsed(), qint64(seconds * 1000 * 0.8));
    EXPECT_GT(peak, 0.3);
    EXPECT_EQ(player.level(), 0.0);
    EXPECT_FALSE(player.isPlaying());
}

TEST_F(QtTTSPlayerTest, NotAudioEndsAtOnce)
{
    QtTTSPlayer player(clock);
    QSignalSpy playing(&player, &TTSPlayer::isPlayingChanged);
    for (const QByteArray& bytes : {QByteArray("this is no audio at all, only text"), QByteArray()})
        awaitTask(player.play(bytes), 5'000);
    EXPECT_EQ(playing.count(), 0);
    EXPECT_FALSE(player.isPlaying());
}

TEST(QtCameraServiceTest, NoCameraIsReportedAndStopsNothing)
{
    if (!QMediaDevices::videoInputs().isEmpty())
        GTEST_SKIP() << "this machine has a camera";
    QtCameraService camera;
    EXPECT_TRUE(awaitTask(camera.requestAccess()));
    try {
        camera.start();
        ADD_FAILURE() << "a start without a camera succeeded";
    } catch (const CameraError& error) {
        EXPECT_EQ(error.kind(), CameraError::Kind::noDevice);
        EXPECT_EQ(error.description(), u"No camera device available"_s);
    }
    EXPECT_TRUE(camera.hasFailed());
    EXPECT_FALSE(camera.isRunning());
    camera.stop();
}
