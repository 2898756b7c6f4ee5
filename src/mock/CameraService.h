#pragma once

#include <QCoroTask>
#include <QObject>
#include <QString>

#include <optional>
#include <stdexcept>

class CameraError : public std::exception {
public:
    enum class Kind { permissionDenied, noDevice, cannotAddInput };

    explicit CameraError(Kind kind);
    Kind kind() const { return m_kind; }
    QString description() const;
    const char* what() const noexcept override { return m_what.c_str(); }

private:
    Kind m_kind;
    std::string m_what;
};

// The user's own picture beside the interviewer: shown only, never recorded or sent. A camera
// failure never ends a practice session; the tile shows a message instead.
class CameraService : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isRunning READ isRunning NOTIFY isRunningChanged)
    Q_PROPERTY(bool hasFailed READ hasFailed NOTIFY hasFailedChanged)

public:
    using QObject::QObject;

    // Whether the camera may be used; asks the user where the desktop decides that.
    virtual QCoro::Task<bool> requestAccess() = 0;
    // Throws CameraError. A camera that fails later (busy, taken away) sets hasFailed instead.
    virtual void start() = 0;
    virtual void stop() = 0;

    bool isRunning() const { return m_isRunning; }
    bool hasFailed() const { return m_hasFailed; }
    // What the camera failed with last, for the log; the tile shows one text for every failure.
    std::optional<CameraError> lastError() const { return m_lastError; }

Q_SIGNALS:
    void isRunningChanged();
    void hasFailedChanged();

protected:
    void setRunning(bool running)
    {
        if (running == m_isRunning)
            return;
        m_isRunning = running;
        Q_EMIT isRunningChanged();
    }
    void setFailed(std::optional<CameraError> error)
    {
        m_lastError = error;
        if (error.has_value() == m_hasFailed)
            return;
        m_hasFailed = error.has_value();
        Q_EMIT hasFailedChanged();
    }

private:
    bool m_isRunning = false;
    bool m_hasFailed = false;
    std::optional<CameraError> m_lastError;
};
