#include "CameraService.h"

using namespace Qt::StringLiterals;

CameraError::CameraError(Kind kind)
    : m_kind(kind)
    , m_what(description().toStdString())
{
}

QString CameraError::description() const
{
    switch (m_kind) {
    case Kind::permissionDenied:
        return u"Camera permission denied"_s;
    case Kind::noDevice:
        return u"No camera device available"_s;
    case Kind::cannotAddInput:
        return u"Cannot add camera input to capture session"_s;
    }
    return {};
}
