#pragma once

#include "CameraService.h"

#include <QMediaCaptureSession>
#include <QPointer>

class QCamera;

// The user's camera through Qt Multimedia, shown by the meeting window's video output. Desktops
// here have no per-program camera right: a camera that is refused or held by another program
// shows up as an error of the device, and counts as a refusal.
class QtCameraService final : public CameraService {
    Q_OBJECT

public:
    explicit QtCameraService(QObject* parent = nullptr);
    ~QtCameraService() override;

    QCoro::Task<bool> requestAccess() override;
    void start() override;
    void stop() override;

    // The preview's source; made once and never replaced.
    QMediaCaptureSession* session() { return &m_session; }

private:
    void fail(CameraError::Kind kind);

    QMediaCaptureSession m_session;
    QPointer<QCamera> m_camera;
};
