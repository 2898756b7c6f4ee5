#include "APIError.h"

using namespace Qt::StringLiterals;

APIError::APIError(Kind kind, int status) : m_kind(kind), m_status(status)
{
    m_what = description().toStdString();
}

QString APIError::description() const
{
    switch (m_kind) {
    case Kind::serverError:
        return u"Server error ("_s + QString::number(m_status) + u")"_s;
    case Kind::networkError:
        return u"Network connection failed"_s;
    case Kind::unauthorized:
        return u"Authentication required"_s;
    case Kind::decodingError:
        return u"Failed to parse response"_s;
    }
    return {};
}

