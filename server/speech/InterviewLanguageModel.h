#pragma once

#include <QByteArray>
#include <QStringList>

// A small trigram model in ARPA text form, built from sentences of interview speech. The
// general English model knows few interview phrases well; mixed with this one it prefers
// "tell me about a project" over acoustically close nonsense.
namespace InterviewLanguageModel {

// Built-in interview sentences (questions and common answer phrases), one a line.
QStringList builtInSentences();

// Absolute discounting with back-off; words are lower-cased and split on spaces.
QByteArray arpa(const QStringList& sentences);

} // namespace InterviewLanguageModel
