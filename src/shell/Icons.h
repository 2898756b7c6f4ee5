#pragma once

#include <QIcon>
#include <QObject>
#include <QString>
#include <QtQmlIntegration>

class QJSEngine;
class QQmlEngine;

// The program's symbol names, drawn from the Material Design Icons font that Debian packages
// (fonts-materialdesignicons-webfont, SIL Open Font License; icons CC BY). One name map for
// the whole program; an unknown name draws nothing.
class Icons : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(QString family READ family CONSTANT)

public:
    static inline const QString fontPath =
        QStringLiteral("/usr/share/fonts/truetype/materialdesignicons-webfont/materialdesignicons-webfont.ttf");

    static Icons* create(QQmlEngine*, QJSEngine*);
    static Icons& shared();

    // The glyph that stands for a symbol name, or an empty text.
    Q_INVOKABLE static QString glyph(const QString& symbol);
    // The font family of the glyphs; empty when the font is not installed.
    QString family() const { return m_family; }
    // A symbol drawn as an icon of `size` pixels, for the tray.
    QIcon icon(const QString& symbol, int size, const QColor& color) const;

private:
    Icons();
    QString m_family;
};
