#pragma once

#include "model/textsearch.h"

#include <QFont>
#include <QGlyphRun>
#include <QHash>
#include <QList>
#include <QStyledItemDelegate>

#include <memory>

class QTextLayout;

// Draws one sidebar row: the conversation's title on one line, and under it, 2 points lower,
// its date in the smallest caption font and the secondary colour. A search result adds its line
// of context below, the words found in bold. Colours are read from the
// view's palette at paint time, so rows follow a palette change without being rebuilt.
//
// Each line is shaped once and kept for as long as its text, width and font stay the same: while a
// search delivers its results the list repaints many times over, and shaping a screenful of rows
// each time would hold up typing. Titles and dates are kept apart from the lines of context, so
// that the rows a search shows reuse the shaping of the same conversations in the plain list and
// in earlier searches; only the new lines of context are shaped when results first appear. A list
// that receives many new rows at once can have them shaped ahead with prepare(), a few at each turn,
// so that the turn that first draws them only draws.
class ConversationDelegate final : public QStyledItemDelegate
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ConversationDelegate)

public:
    explicit ConversationDelegate(QObject *parent = nullptr);

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    // Shapes the lines of a row not drawn yet, as paint() will for a row rect that wide (the view's
    // item width). Cheap for lines shaped already.
    void prepare(const QString &title, const QString &dateText, const QString &context,
                 const QList<TextSearch::Range> &contextHits, int rowWidth) const;
    // How many lines have been shaped so far: a list that prepares its rows can tell whether the
    // drawing still had to shape any.
    qsizetype linesShaped() const { return m_linesShaped; }
    // The height of a row, with or without its line of context.
    static int rowHeight(bool withContext);

    static constexpr int lineSpacing = 2;
    static constexpr int horizontalPadding = 8;
    static constexpr int verticalPadding = 5;

private:
    using Line = std::shared_ptr<const QTextLayout>;
    using LineCache = QHash<QString, Line>;
    // A line ready to draw: its glyphs, placed. Drawing them skips the layout's own walk through
    // its text, which costs more than drawing the glyphs.
    using Glyphs = std::shared_ptr<const QList<QGlyphRun>>;
    using GlyphCache = QHash<QString, Glyphs>;
    struct Fonts
    {
        QFont title;
        QFont date;
        QFont context;
        bool operator==(const Fonts &) const = default;
    };

    static bool hasContext(const QModelIndex &index);
    static Fonts currentFonts();
    // Opens the fonts of the rows and draws their common letters off screen, a little at each turn
    // of the event loop from the given step on, starting once the list is first drawn: the first
    // search then does not pay for it in the turn that shows its results.
    void prepareFont(int step) const;
    void useFonts(const Fonts &fonts) const;
    // The text on one line of the given font, elided to the width.
    Glyphs elidedLine(GlyphCache &cache, const QString &text, const QFont &font, int width) const;
    // The glyphs of the row's line of context that can show within the width, null for a row
    // without context. The line runs on well past the row's edge; drawing it whole would look up,
    // and the first time rasterise, every glyph beyond.
    Glyphs contextGlyphs(const QString &context, const QList<TextSearch::Range> &hits, int width) const;

    // Lines shaped so far, by what they show; each emptied when it grows past a few screenfuls,
    // all of them when the fonts change.
    mutable GlyphCache m_titles;
    mutable GlyphCache m_dates;
    mutable LineCache m_contexts;
    mutable GlyphCache m_contextGlyphs;
    mutable Fonts m_fonts;
    mutable int m_titleHeight = 0;
    mutable int m_dateHeight = 0;
    mutable bool m_fontsPrepared = false;
    mutable qsizetype m_linesShaped = 0;
};
