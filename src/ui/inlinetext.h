#pragma once

#include "render/inlinemarkdown.h"

#include <QFont>
#include <QList>
#include <QString>
#include <QTextLayout>

#include <optional>

class QPainter;
class QPalette;

// One block's inline Markdown laid out as wrapped text: styled runs, links, line breaks and runs
// of blanks kept, one point of extra space between lines. The layout is kept until the text, the
// font or the width changes, so drawing it again costs no layout. Not a widget: the block views
// own one each and draw it.
class InlineText final
{
public:
    InlineText() = default;
    Q_DISABLE_COPY_MOVE(InlineText)

    // Returns whether anything changed.
    bool setSource(const QString &source);
    bool setFont(const QFont &font);
    const QString &source() const { return m_source; }
    const QFont &font() const { return m_font; }
    // The text as shown, without markup.
    const QString &plainText() const { return m_text; }

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
    // The target of the link at a point relative to the text's top-left corner, if any.
    std::optional<QString> linkAt(QPointF point) const;

private:
    struct Link
    {
        int start = 0;
        int length = 0;
        QString target;
    };

    void layOut(qreal width);

    QString m_source;
    QString m_text;
    QList<QTextLayout::FormatRange> m_formats;
    QList<Link> m_links;
    QFont m_font;
    QTextLayout m_layout;
    qsizetype m_firstChange = 0;
    int m_oldChangedTop = 0; // the same place in the layout before the change
    qreal m_laidOutWidth = -1;
    int m_height = 0;
    int m_idealWidth = -1;
};
