#include "Icons.h"

#include "Log.h"

#include <QFontDatabase>
#include <QHash>
#include <QPainter>
#include <QPixmap>
#include <QQmlEngine>

using namespace Qt::StringLiterals;

namespace {

// Symbol name → code point of the font.
const QHash<QString, char32_t>& nameMap()
{
    static const QHash<QString, char32_t> map{
        {u"waveform.and.person.filled"_s, 0xF5CB}, // voice
        {u"gearshape"_s, 0xF493},                  // settings
        {u"eye"_s, 0xF208},                        // eye
        {u"eye.slash"_s, 0xF209},                  // eye-off
        {u"power"_s, 0xF425},                      // power
        {u"person.circle.fill"_s, 0xF009},         // account-circle
        {u"checkmark"_s, 0xF12C},                  // check
        {u"lock.shield"_s, 0xF498},                // shield
        {u"rectangle.dashed.badge.record"_s, 0xF44B}, // record-rec
        {u"mic.fill"_s, 0xF36C},                   // microphone
        {u"keyboard"_s, 0xF30C},                   // keyboard
        {u"rectangle.portrait.and.arrow.right"_s, 0xF343}, // logout
        {u"record.circle"_s, 0xF44A},              // record
        {u"stop.fill"_s, 0xF4DB},                  // stop
        {u"doc.text.fill"_s, 0xF219},              // file-document
        {u"briefcase.fill"_s, 0xF0D6},             // briefcase
        {u"xmark.circle.fill"_s, 0xF159},          // close-circle
        {u"sparkles"_s, 0xF4CE},                   // star
        {u"wand.and.sparkles"_s, 0xF068},          // auto-fix
        {u"chevron.left"_s, 0xF141},               // chevron-left
        {u"chevron.right"_s, 0xF142},              // chevron-right
        {u"chevron.down"_s, 0xF140},               // chevron-down
        {u"gearshape.fill"_s, 0xF493},             // settings
        {u"keyboard.fill"_s, 0xF30C},              // keyboard
        {u"person.wave.2.fill"_s, 0xF5CB},         // voice
        {u"person.crop.circle.fill"_s, 0xF009},    // account-circle
        {u"globe"_s, 0xF1E7},                      // earth
        {u"questionmark.circle.fill"_s, 0xF2D7},   // help-circle
        {u"exclamationmark.triangle.fill"_s, 0xF026}, // alert
        {u"arrow.down.circle.fill"_s, 0xF047},     // arrow-down-bold-circle
        {u"ellipsis"_s, 0xF1D8},                   // dots-horizontal
        {u"exclamationmark.triangle"_s, 0xF026},   // alert
        {u"doc.badge.plus"_s, 0xF39C},             // note-plus
        {u"doc.fill"_s, 0xF214},                   // file
        {u"trash"_s, 0xF1C0},                      // delete
        {u"circle"_s, 0xF130},                     // checkbox-blank-circle-outline
        {u"checkmark.circle.fill"_s, 0xF5E0},      // check-circle
        {u"arrow.left.circle"_s, 0xF050},          // arrow-left-bold-circle-outline
        {u"arrow.right.circle"_s, 0xF057},         // arrow-right-bold-circle-outline
        {u"arrow.up.circle"_s, 0xF060},            // arrow-up-bold-circle-outline
        {u"arrow.down.circle"_s, 0xF048},          // arrow-down-bold-circle-outline
        {u"doc.on.doc"_s, 0xF18F},                 // content-copy
        {u"play.fill"_s, 0xF40A},                  // play
        {u"forward.fill"_s, 0xF211},               // fast-forward
        {u"phone.down.fill"_s, 0xF3F5},            // phone-hangup
        {u"arrow.triangle.2.circlepath"_s, 0xF450}, // refresh
    };
    return map;
}

} // namespace

Icons::Icons()
{
    const int id = QFontDatabase::addApplicationFont(fontPath);
    const auto families = QFontDatabase::applicationFontFamilies(id);
    if (id < 0 || families.isEmpty())
        logLine(u"App", u"icon font not found at "_s + fontPath + u"; icons are left out"_s);
    else
        m_family = families.first();
}

Icons& Icons::shared()
{
    static Icons* instance = new Icons; // lives as long as the process, like the fonts
    return *instance;
}

Icons* Icons::create(QQmlEngine*, QJSEngine*)
{
    auto* instance = &shared();
    QQmlEngine::setObjectOwnership(instance, QQmlEngine::CppOwnership);
    return instance;
}

QString Icons::glyph(const QString& symbol)
{
    const auto it = nameMap().find(symbol);
    if (it == nameMap().end())
        return {};
    const char32_t codePoint = it.value();
    return QString::fromUcs4(&codePoint, 1);
}

QIcon Icons::icon(const QString& symbol, int size, const QColor& color) const
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    if (!m_family.isEmpty()) {
        QPainter painter(&pixmap);
        QFont font(m_family);
        font.setPixelSize(size);
        painter.setFont(font);
        painter.setPen(color);
        painter.drawText(pixmap.rect(), Qt::AlignCenter, glyph(symbol));
    }
    return QIcon(pixmap);
}
