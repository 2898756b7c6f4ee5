#pragma once

#include <QByteArray>
#include <QString>

// The interviewer's face of practice sessions: an abstract head-and-shoulders portrait drawn
// from a seed, the same picture for the same seed. Needs no display, only QtGui's raster.
namespace AvatarPainter {

constexpr int size = 512;

// A PNG of size × size pixels.
QByteArray paintPng(const QString& seed);

} // namespace AvatarPainter
