#pragma once

#include "InterviewViewModel.h"

#include <QColor>
#include <QString>

class AppStrings;

// How the pipeline's state looks wherever it is shown: the overlay's dot, the menu's status row
// and the dashboard's status row agree on it.
namespace StatusStyle {

QColor colorOf(InterviewViewModel::PipelineState state);

// The state's word in the user's language; in the error state the interview's own message, as
// it stands.
QString wordOf(InterviewViewModel::PipelineState state, const QString& statusMessage,
               const AppStrings& strings);

} // namespace StatusStyle
