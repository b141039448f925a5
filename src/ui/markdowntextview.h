#pragma once

#include "render/markdowntext.h"
#include "ui/inlinetext.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QWidget>

#include <optional>

class QWheelEvent;

class QScrollArea;

// One place the find bar found in a block's shown text. In a table, cell counts the cells drawn
// row by row, the header row first; elsewhere it is 0.
struct FindHit
{
    int cell = 0;
    TextSearch::Range range;
    bool current = false;

    friend bool operator==(const FindHit &, const FindHit &) = default;
};

// A block's hits as the ranges to mark, in order, and the current one among them.
struct FindMarks
{
    QList<TextSearch::Range> ranges;
    int current = -1; // index into ranges; -1 when no hit is current
    std::optional<TextSearch::Range> currentRange;
};
FindMarks findMarks(const QList<FindHit> &hits);

// The colour the window's raster painting shows where over is filled onto the opaque colour under.
QColor paintedOver(const QColor &under, const QColor &over);

// The view of one Markdown block. A view is kept while its block changes in place: setBlock()
// takes the new payload and reports whether this view can show it at all.

class MarkdownBlockView : public QWidget
{
    Q_OBJECT

public:
    using QWidget::QWidget;

    // Shows block; false (and nothing changed) when the block is of a kind this view cannot draw.
    virtual bool setBlock(const MarkdownText::Block &block) = 0;
    // The width the block needs to show everything without wrapping.
    virtual int idealWidth() const = 0;
    // Whether the block takes all the width it is offered (paragraphs, list items, code).
    virtual bool fillsWidth() const = 0;
    bool hasHeightForWidth() const override { return true; }

    // Marks the find bar's hits in the block's shown text, the current one stronger; a block that
    // scrolls sideways brings the current one into its strip. Replaces the hits it had.
    virtual void setFindHits(const QList<FindHit> &hits) = 0;
    // Where the current hit is drawn, in this view's coordinates; empty when it is not here.
    virtual QRect currentHitRect() const { return {}; }

    // The opaque colour the window shows behind the block. A block that can paints it itself and
    // is then opaque, so that nothing behind it is painted again when only the block changed (a
    // streamed line repaints its block alone). An invalid colour, the default, leaves the block
    // transparent; blocks with a tint of their own (code, tables) stay transparent.
    virtual void setBackdrop(const QColor &) {}

    // Marks the rows a view grew into below oldHeight for repainting, so that Qt draws them with
    // the view's changed lines in one paint rather than two.
    static void repaintGrowth(QWidget *view, int oldHeight);

protected:
    // Scrolls a sideways strip so that target (in the strip's content coordinates) is in view,
    // with some of what surrounds it; a target already in view leaves the strip where it is.
    static void scrollSidewaysTo(QScrollArea *scroll, const QRect &target);
    // A block that scrolls only sideways hands an upward or downward wheel to the transcript
    // around it, which would otherwise never see it. Returns whether the wheel was handed on.
    static bool passVerticalWheel(QWidget *block, QWheelEvent *wheel);
    // Sets scroll up as a frameless strip that shows content and moves only sideways, under the
    // block's own control (no bars, no focus), and routes the wheel over it through filter.
    static void setUpSidewaysScroll(QScrollArea *scroll, QWidget *content, QObject *filter);
};

// Headings, paragraphs, list items and quotes: inline Markdown painted from one cached layout.
// Only links react to the mouse (opened in the browser when InlineMarkdown allows it); the text
// is not selectable.
class TextBlockView final : public MarkdownBlockView
{
    Q_OBJECT

public:
    explicit TextBlockView(const MarkdownText::Block &block, QWidget *parent = nullptr);

    bool setBlock(const MarkdownText::Block &block) override;
    int heightForWidth(int width) const override;
    int idealWidth() const override;
    bool fillsWidth() const override;
    QSize sizeHint() const override;
    void setFindHits(const QList<FindHit> &hits) override;
    QRect currentHitRect() const override;
    void setBackdrop(const QColor &color) override;

    const MarkdownText::Block &block() const { return m_block; }
    // The text as shown, with the bullet or number in front.
    QString displayText() const;
    const QFont &textFont() const { return m_text.font(); }
    // The right edge of the text's widest line as laid out now, in the view's coordinates.
    int textRight() const;

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    // Space taken left of the text (bullet, number or bar with its gap).
    int leadingWidth() const;
    int topPadding() const;
    QFont blockFont() const;
    std::optional<QString> linkAt(QPoint pos) const;
    void measurePrefix();

    MarkdownText::Block m_block;
    mutable InlineText m_text;
    int m_leading = 0;      // bullet, number or bar, with the gap after it
    int m_prefixHeight = 0; // a bullet's or number's line
    std::optional<TextSearch::Range> m_currentHit;
    QColor m_backdrop;
};

// A Markdown text as a stack of block views, 3 points apart. When the text changes, the view at
// index k is updated in place, so a block that did not change is neither rebuilt nor laid out
// again and a code block keeps its copied state.
class MarkdownTextView final : public QWidget
{
    Q_OBJECT

public:
    explicit MarkdownTextView(QWidget *parent = nullptr);

    // Returns whether anything changed.
    bool setText(const QString &text);
    const QString &text() const { return m_text; }

    int heightForWidth(int width) const override;
    bool hasHeightForWidth() const override { return true; }
    QSize sizeHint() const override;
    // The width needed without wrapping; -1 when a block takes any width it is offered.
    int idealWidth() const;

    const QList<MarkdownBlockView *> &blockViews() const { return m_views; }
    // The blocks shown, one per view.
    const QList<MarkdownText::Block> &blocks() const { return m_blocks; }
    // Hands each block view its find hits, by block index; a block not named has none. Views made
    // later by setText() start without hits.
    void setFindHits(const QHash<int, QList<FindHit>> &hitsByBlock);
    // The opaque colour the window shows behind the text, handed to every block view (see
    // MarkdownBlockView::setBackdrop); invalid, the default, when it is not one solid colour.
    void setBackdrop(const QColor &color);

    static constexpr int blockSpacing = 3;
    // Blocks are held in runs of this many consecutive ones: Qt walks every child of a widget on
    // each repaint and after each move of a child, and a long reply has hundreds of blocks.
    static constexpr qsizetype groupSize = 32;
    // The most of a message that is parsed for showing, in UTF-16 units.
    static constexpr qsizetype parseLimit = 4 * 1024 * 1024;
    // Roughly the characters of text laid out for one message. Laying text out costs
    // microseconds a character; past this the rest of the message is left out, with a note.
    static constexpr qsizetype layoutBudget = 200 * 1024;
    // The blocks shown for text: within the limit and the budget, then the note when anything
    // was left out.
    static QList<MarkdownText::Block> shownBlocks(const QString &text, bool grew = false);

protected:
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void layOutBlocks(qsizetype from);
    static void showPlaced(QWidget *view);
    static void placeIfMoved(QWidget *view, const QRect &rect);
    void invalidateHeights();
    MarkdownBlockView *makeView(const MarkdownText::Block &block, QWidget *parent) const;
    // The run that holds the view of block index, made when it is the first of its run.
    QWidget *groupFor(qsizetype index);
    // What showing a block costs, in characters laid out; a table cell or a code block counts
    // some for itself.
    static qsizetype layoutCost(const MarkdownText::Block &block);
    // blocks cut where the layout budget runs out, with the note when anything was left out.
    static QList<MarkdownText::Block> withinBudget(QList<MarkdownText::Block> blocks, bool cut);
    static constexpr qsizetype cellCost = 16;

    // The blocks shown for a text within the parse limit, parsing a text that grew from where the
    // last parse left a resume point; sets reused to how many blocks came from that parse.
    QList<MarkdownText::Block> blocksFor(const QString &text, bool grew, qsizetype *reused);
    // Whether blocksFor() parses text from the last resume point rather than whole.
    bool resumesParse(const QString &text, bool grew) const;

    QString m_text;
    QList<MarkdownText::Block> m_blocks;
    // The whole parse of m_text while it grows, and where a longer text can be parsed again from.
    QList<MarkdownText::Block> m_parsed;
    MarkdownText::ResumePoint m_resume;
    QList<MarkdownBlockView *> m_views;
    QList<QWidget *> m_groups; // view k is a child of m_groups[k / groupSize]
    // Each block's height at m_heightsWidth; those before m_heightsValid are current.
    mutable QList<int> m_heights;
    mutable int m_heightsWidth = -1;
    mutable qsizetype m_heightsValid = 0;
    bool m_blocksPlaced = false; // whether layOutBlocks has placed them at a width of ours
    QColor m_backdrop;
};
