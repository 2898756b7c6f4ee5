#include "StatusStyle.h"

#include "AppStrings.h"

using namespace Qt::StringLiterals;
using State = InterviewViewModel::PipelineState;

namespace StatusStyle {

QColor colorOf(State state)
{
    switch (state) {
    case State::idle:
        return QColor(0x8e, 0x8e, 0x93);
    case State::recording:
        return QColor(0x34, 0xc7, 0x59);
    case State::reconnecting:
    case State::stopping:
        return QColor(0xff, 0xcc, 0x00);
    case State::error:
        break;
    }
    return QColor(0xff, 0x3b, 0x30);
}

QString wordOf(State state, const QString& statusMessage, const AppStrings& strings)
{
    switch (state) {
    case State::idle:
        return strings.text(u"status.ready"_s);
    case State::recording:
        return strings.text(u"status.recording"_s);
    case State::reconnecting:
        return strings.text(u"status.reconnecting"_s);
    case State::stopping:
        return strings.text(u"status.stopping"_s);
    case State::error:
        break;
    }
    return statusMessage;
}

} // namespace StatusStyle
