#pragma once

#include "model/textsearch.h"

#include <QColor>
#include <QFont>
#include <QIcon>
#include <QLatin1StringView>
#include <QPalette>
#include <QTextLayout>

class QToolButton;
class QWidget;

// The one place where the windows get their named text styles, semantic colours and symbol
// icons. Everything is derived from the application's font and palette at the moment of the
// call, so a widget that asks again on QEvent::PaletteChange / FontChange follows the system
// live; icons made by symbolIcon() resolve their colour when they are painted, so they follow
// a palette change without being made again.
namespace Theme {

// Named text styles, sized relative to the application font as the desktop's type ramp is
// sized relative to its body text.
enum class TextStyle {
    Body,
    Callout,
    Subheadline,
    Caption,
    Caption2,
    Headline,
    Title2,
    LargeTitle,
};

// Semantic colours. Secondary is the dimmed text colour, Accent the selection colour; the
// system colours have a light and a dark variant chosen from the palette's lightness.
enum class Color {
    Primary,
    Secondary,
    Accent,
    TextBackground,
    Pink,
    Purple,
    Orange,
    Red,
    Grey,
    Green,
};

QFont font(TextStyle style);
// The application's font family at an exact size in pixels (points are pixels here).
QFont systemFont(qreal pixelSize, QFont::Weight weight = QFont::Normal);
// A fixed-pitch font at the size of the given style, for code.
QFont monospaceFont(TextStyle style = TextStyle::Body);

// True when the palette's window colour is dark.
bool isDark(const QPalette &palette);
QColor color(Color color, const QPalette &palette);
QColor color(Color color);
// The colour with its alpha multiplied by opacity (0..1).
QColor withOpacity(QColor color, qreal opacity);

// The freedesktop icon name that stands for a symbol name ("doc.on.doc" → "edit-copy"), or an
// empty string for a name we do not know.
QString themeIconName(QLatin1StringView symbol);
// The icon for a symbol: the desktop theme's icon when the theme has one, otherwise our own
// drawing of the symbol, filled with the semantic colour taken from the application palette
// each time it is painted (disabled icons are drawn at 40%). An unknown symbol still draws a
// visible mark rather than nothing.
QIcon symbolIcon(QLatin1StringView symbol, Color tint = Color::Secondary);
// Our own drawing of the symbol in a fixed colour, ignoring the desktop theme.
QIcon symbolIcon(QLatin1StringView symbol, const QColor &tint);
// True when the symbol is one of ours (every symbol the windows use is).
bool hasSymbol(QLatin1StringView symbol);

// A borderless tool button showing the symbol at 16 px, its help as tooltip and accessible name,
// reachable by Tab.
QToolButton *symbolButton(QLatin1StringView symbol, const QString &help, const QString &objectName, QWidget *parent);
// How a word the find bar found is marked in text: a tinted background, stronger for the current
// one, with text that stays readable on it in light and dark palettes.
QTextLayout::FormatRange findHighlight(qsizetype start, qsizetype length, bool current);
// Sets the widget's text colour (its palette's WindowText).
void setTextColour(QWidget *widget, const QColor &colour);

} // namespace Theme
