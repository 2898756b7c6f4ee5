#pragma once

#include "AnswerEngine.h"

#include <QFuture>
#include <QStringList>

namespace ravlet::server {

// The offline engine's answer, line by line. The first line says that it is an offline draft;
// every other line is "Label: text", where the text is either taken word for word from the
// resume or job description, or is guidance in [brackets] for the user to replace. Nothing
// else is ever put in the user's mouth.
QStringList draftAnswer(const AnswerRequest& request);
// The same on a worker thread: reading long documents must not hold up the event loop.
QFuture<QStringList> draftAnswerInBackground(AnswerRequest request);

} // namespace ravlet::server
