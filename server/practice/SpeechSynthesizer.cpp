#include "SpeechSynthesizer.h"

#include <QHash>
#include <QPointer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTimer>
#include <QtEndian>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

quint32 readLe32(const QByteArray& bytes, qsizetype at)
{
    return qFromLittleEndian<quint32>(bytes.constData() + at);
}

QByteArray le32(quint32 value)
{
    QByteArray bytes(4, Qt::Uninitialized);
    qToLittleEndian(value, bytes.data());
    return bytes;
}

// Nothing of the server's own environment reaches the child (a preloaded library, a PATH
// the operator's shell set up): it gets a fixed search path and a UTF-8 locale only.
const QStringList safeSearchPath{u"/usr/local/bin"_s, u"/usr/bin"_s, u"/bin"_s};

QProcessEnvironment childEnvironment()
{
    QProcessEnvironment environment;
    environment.insert(u"PATH"_s, safeSearchPath.join(u':'));
    environment.insert(u"LANG"_s, u"C.UTF-8"_s);
    return environment;
}

} // namespace

SpeechSynthesizer::SpeechSynthesizer(QString program, Clock& clock, QObject* parent)
    : QObject(parent)
    , m_program(std::move(program))
    , m_clock(clock)
{
}

QString SpeechSynthesizer::voiceFor(const QString& language)
{
    static const QHash<QString, QString> voices{
        {u"en"_s, u"en-us"_s}, {u"de"_s, u"de"_s}, {u"es"_s, u"es"_s}, {u"fr"_s, u"fr"_s},
        {u"it"_s, u"it"_s},    {u"pt"_s, u"pt"_s}, {u"nl"_s, u"nl"_s}, {u"pl"_s, u"pl"_s},
        {u"sv"_s, u"sv"_s},    {u"tr"_s, u"tr"_s}, {u"ru"_s, u"ru"_s}, {u"uk"_s, u"uk"_s},
    };
    const auto lower = language.toLower();
    if (lower.startsWith(u"en-gb"_s) || lower.startsWith(u"en_gb"_s))
        return u"en-gb"_s;
    return voices.value(lower.left(2), u"en-us"_s);
}

QString SpeechSynthesizer::program() const
{
    // A bare name is looked up on the same fixed path the child gets, not on the server's.
    if (m_program.contains(u'/'))
        return m_program;
    const auto found = QStandardPaths::findExecutable(m_program, safeSearchPath);
    return found.isEmpty() ? m_program : found;
}

std::optional<QByteArray> SpeechSynthesizer::completeWav(const QByteArray& streamed)
{
    if (streamed.size() < 12 || !streamed.startsWith("RIFF") || streamed.mid(8, 4) != "WAVE")
        return std::nullopt;
    QByteArray format;
    qsizetype at = 12;
    while (at + 8 <= streamed.size()) {
        const auto id = streamed.mid(at, 4);
        const auto size = readLe32(streamed, at + 4);
        if (id == "data") {
            // The streamed size is a placeholder: the audio is whatever follows.
            if (format.size() < 16)
                return std::nullopt;
            const auto blockAlign = qFromLittleEndian<quint16>(format.constData() + 12);
            auto pcm = streamed.mid(at + 8);
            if (blockAlign > 0)
                pcm.truncate(pcm.size() - pcm.size() % blockAlign);
            return "RIFF" + le32(quint32(4 + 8 + format.size() + 8 + pcm.size())) + "WAVE"
                   + "fmt " + le32(quint32(format.size())) + format + "data"
                   + le32(quint32(pcm.size())) + pcm;
        }
        if (size > quint32(streamed.size() - at - 8))
            return std::nullopt;
        if (id == "fmt ") {
            format = streamed.mid(at + 8, qsizetype(size));
            if (format.size() < 16 || qFromLittleEndian<quint16>(format.constData()) != 1)
                return std::nullopt; // not plain PCM
        }
        at += 8 + qsizetype(size) + qsizetype(size % 2);
    }
    return std::nullopt;
}

void SpeechSynthesizer::speak(const QString& text, const QString& language,
                              std::function<void(const Result&)> done)
{
    if (m_running >= maxRunning) {
        QTimer::singleShot(0, this, [done = std::move(done)] {
            done(Failure{503, u"Speech synthesis is busy; try again in a moment"_s});
        });
        return;
    }
    ++m_running;
    auto* process = new QProcess(this);
    // One answer per child, whichever of its signals or its time limit comes first.
    auto finish = std::make_shared<std::function<void(const Result&)>>(std::move(done));
    auto limit = std::make_shared<std::optional<Clock::TimerId>>();
    auto settle = [this, process, finish, limit](const Result& result) {
        if (!*finish)
            return;
        auto callback = std::move(*finish);
        *finish = nullptr;
        if (*limit)
            m_clock.cancelTimer(**limit);
        --m_running;
        process->disconnect(this);
        process->deleteLater();
        callback(result);
    };
    connect(process, &QProcess::errorOccurred, this,
            [process, settle](QProcess::ProcessError error) {
                if (error == QProcess::FailedToStart) {
                    settle(Failure{503, u"Speech synthesis is not available on this server: "
                                        u"espeak-ng is not installed"_s});
                } else if (error == QProcess::Crashed || error == QProcess::Timedout) {
                    process->kill();
                    settle(Failure{500, u"Speech synthesis failed"_s});
                }
            });
    connect(process, &QProcess::finished, this,
            [process, settle](int exitCode, QProcess::ExitStatus status) {
                if (status != QProcess::NormalExit || exitCode != 0) {
                    settle(Failure{500, u"Speech synthesis failed"_s});
                    return;
                }
                const auto wav = completeWav(process->readAllStandardOutput());
                if (!wav)
                    settle(Failure{500, u"Speech synthesis produced no audio"_s});
                else
                    settle(*wav);
            });
    process->setProcessChannelMode(QProcess::SeparateChannels);
    process->setStandardErrorFile(QProcess::nullDevice());
    process->setProcessEnvironment(childEnvironment());
    process->start(program(), {u"-v"_s, voiceFor(language), u"--stdout"_s});
    if (!*finish)
        return; // refused at once: the child never ran
    *limit = m_clock.startTimer(processLimitMs, [process = QPointer(process), settle] {
        if (!process)
            return; // this object, and its children with it, went first
        process->kill();
        settle(Failure{500, u"Speech synthesis took too long"_s});
    });
    // Written before the child runs: QProcess buffers it, and a failed start discards it.
    process->write(text.toUtf8());
    process->closeWriteChannel();
}
