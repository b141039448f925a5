#pragma once

#include "model/textsearch.h"
#include "render/inlinemarkdown.h"

#include <QFont>
#include <QList>
#include <QString>
#include <QTextLayout>

#include <memory>
#include <optional>
#include <vector>

class QPainter;
class QPalette;

// One block's inline Markdown laid out as wrapped text: styled runs, links, line breaks and runs
// of blanks kept, one point of extra space between lines. The layout is kept until the text, the
// font or the width changes, so drawing it again costs no layout. Not a widget: the block views
// own one each and draw it.
//
// Text is laid out in spans of a few thousand characters, so a line without any place to wrap
// costs what its length costs rather than its square. A growing text lays out again only from
// the start of the line its change is on: the lines above stay as they were laid out. A source longer than shownLimit
// is shown up to there, followed by a note of how much is left out; the source itself is kept whole.
class InlineText final
{
public:
    InlineText();
    ~InlineText();
    Q_DISABLE_COPY_MOVE(InlineText)

    // The longest source shown, in UTF-16 units. Laying out text costs microseconds per
    // character, so this bounds what one block can cost to a fraction of a second.
    static constexpr qsizetype shownLimit = 32 * 1024;

    // The part of a source that is shown: all of it up to shownLimit.
    static QStringView shownPart(QStringView source);

    // Returns whether anything changed.
    bool setSource(const QString &source);
    bool setFont(const QFont &font);
    const QString &source() const { return m_source; }
    const QFont &font() const { return m_font; }
    // The text as shown, without markup, the note on a cut text included.
    const QString &plainText() const { return m_text; }
    // Whether the source was too long to be shown whole.
    bool isCut() const { return m_cut; }

    // The height of the text wrapped at width (lays it out when needed).
    int heightForWidth(int width);
    // The width of the widest line when nothing is wrapped.
    int idealWidth();
    // Draws the lines of the text, as last laid out, that meet clip (in the text's own
    // coordinates), its top-left corner at pos, in color; links in linkColor.
    void draw(QPainter *painter, QPointF pos, const QColor &color, const QColor &linkColor,
              const QRectF &clip = QRectF()) const;
    // Where the last setSource() first changed what is shown: the top of the line holding the
    // first changed character, in the current layout; 0 when unknown. A streamed paragraph
    // repaints from there down instead of whole.
    int changedTop() const;
    // Marks found words, in plainText() positions and in order; the one at index current is drawn
    // stronger. Returns whether anything changed; the owner repaints.
    bool setHighlights(const QList<TextSearch::Range> &ranges, int current = -1);
    // Where the start of a range is drawn in the current layout, relative to the text's top-left
    // corner, as wide as the range on that line; empty when the text is not laid out.
    QRectF rangeRect(const TextSearch::Range &range) const;
    // The target of the link at a point relative to the text's top-left corner, if any.
    std::optional<QString> linkAt(QPointF point) const;
    // The right edge of the widest line as last laid out: never more than the width given.
    qreal laidOutRight() const;

private:
    struct Link
    {
        int start = 0;
        int length = 0;
        QString target;
    };
    struct Part;
    struct Span;

    void cutSpans(qsizetype from);
    void keepSettledLines(Span &old, Span &span, qsizetype from) const;
    void layOut(qreal width);
    const Span *spanAt(qsizetype position) const;
    static const Part *partAt(const Span &span, qsizetype position);
    QList<QTextLayout::FormatRange> formatsOf(qsizetype start, qsizetype length) const;
    // The laid-out line holding position (the last line, past the end), and where its part lies.
    struct LineRef
    {
        qreal partTop = 0;
        qsizetype partStart = 0;
        QTextLine line;
    };
    std::optional<LineRef> lineOf(qsizetype position) const;
    int lineTop(qsizetype position) const;
    qsizetype lineStart(qsizetype position) const;

    QString m_source;
    QString m_text;
    QList<QTextLayout::FormatRange> m_formats;
    QList<Link> m_links;
    QList<TextSearch::Range> m_highlights;
    int m_currentHighlight = -1;
    QFont m_font;
    std::vector<std::unique_ptr<Span>> m_spans;
    qsizetype m_firstChange = 0;
    int m_oldChangedTop = 0; // the same place in the layout before the change
    qreal m_laidOutWidth = -1;
    int m_height = 0;
    int m_idealWidth = -1;
    qsizetype m_noteStart = -1; // where the note on a cut text begins, -1 without one
    quint32 m_styles = 0;       // the styles the text has shown, one bit each
    quint32 m_heldStyles = 0;   // those whose fonts are held for m_font
    bool m_cut = false;
    // The whole paragraph's, from its first letter: every span is laid out in it.
    Qt::LayoutDirection m_direction = Qt::LeftToRight;
};

// A link's tooltip: its whole address as written, so a host hidden in it shows, never read as
// markup. An address too long to read is cut.
QString linkToolTip(const QString &target);
