#include "QtCameraService.h"

#include <QCamera>
#include <QCameraDevice>
#include <QMediaDevices>

QtCameraService::QtCameraService(QObject* parent)
    : CameraService(parent)
{
}

QtCameraService::~QtCameraService()
{
    stop();
}

QCoro::Task<bool> QtCameraService::requestAccess()
{
    // Nothing to ask: the device itself grants or refuses when it is opened.
    co_return true;
}

void QtCameraService::fail(CameraError::Kind kind)
{
    setFailed(CameraError(kind));
    throw CameraError(kind);
}

void QtCameraService::start()
{
    if (isRunning())
        return;
    if (!m_camera) {
        const auto devices = QMediaDevices::videoInputs();
        if (devices.isEmpty())
            fail(CameraError::Kind::noDevice);
        // The front camera where the machine says which one that is, else the default.
        QCameraDevice device = QMediaDevices::defaultVideoInput();
        for (const auto& candidate : devices) {
            if (candidate.position() == QCameraDevice::FrontFace) {
                device = candidate;
                break;
            }
        }
        m_camera = new QCamera(device, this);
        connect(m_camera, &QCamera::errorOccurred, this, [this](QCamera::Error error) {
            if (error == QCamera::NoError)
                return;
            // Taken by another program or refused after it started: the tile says so.
            setFailed(CameraError(CameraError::Kind::permissionDenied));
            setRunning(false);
        });
        m_session.setCamera(m_camera);
        if (m_session.camera() != m_camera)
            fail(CameraError::Kind::cannotAddInput);
    }
    m_camera->start();
    if (m_camera->error() != QCamera::NoError)
        fail(CameraError::Kind::permissionDenied);
    setFailed(std::nullopt);
    setRunning(true);
}

void QtCameraService::stop()
{
    if (!isRunning())
        return;
    if (m_camera)
        m_camera->stop();
    setRunning(false);
}
