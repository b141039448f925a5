#pragma once

#include "render/syntaxhighlighter.h"
#include "ui/markdowntextview.h"

#include <QTextLayout>

#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

class CopyFeedback;
class QPainter;
class QLabel;
class QScrollArea;
class QToolButton;

// Highlighted code, never wrapped. Selectable with the mouse and copied with the keyboard's copy
// shortcut. Lines are laid out only when they are drawn, and only their first maxLineLayout
// characters, so a block of a hundred thousand lines or a line of a megabyte costs what is on
// screen; the code itself, as copied, is whole.
class CodeTextView final : public QWidget
{
    Q_OBJECT

public:
    explicit CodeTextView(QWidget *parent = nullptr);
    ~CodeTextView() override;

    // The runs may cover only the start of the code; the rest is drawn in the base colour.
    void setCode(const StyledCode &code);
    const QString &code() const { return m_styled.text; }
    const StyledCode &styledCode() const { return m_styled; }
    QString selectedText() const;
    // Marks found words (positions in code(), in order); the one at index current is drawn stronger.
    void setHighlights(const QList<TextSearch::Range> &ranges, int current);
    // Where the start of a range is drawn, in this view's coordinates; empty past what is shown.
    QRect rangeRect(const TextSearch::Range &range) const;

    // Padding around the code on all sides.
    static constexpr int padding = 8;
    // The most characters of one line that are laid out and drawn.
    static constexpr int maxLineLayout = 8192;
    // The most lines shown; a longer block ends with a line saying how many more it holds.
    static constexpr int maxShownLines = 250000;
    int contentHeight() const;
    int contentWidth() const;
    int lineCount() const { return int(m_starts.size()); }
    int shownLineCount() const { return std::min(lineCount(), maxShownLines); }
    // How many lines hold a layout now.
    int laidOutLineCount() const { return int(m_layouts.size()); }
    // Makes the view opaque, painting itself what its owner shape shows behind the code: the
    // rounded rectangle of shape (corners of radius) filled with tint over the solid colour behind.
    // An invalid behind leaves the view transparent, drawing the code alone.
    void setBackdrop(const QColor &behind, const QColor &tint, const QWidget *shape, qreal radius);
    QSize sizeHint() const override;

signals:
    // Emitted when a line drawn for the first time turned out wider than the code was thought to be.
    void contentWidthChanged();

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    // A place in the code: line and column.
    struct Spot
    {
        int line = 0;
        int column = 0;
        friend auto operator<=>(const Spot &, const Spot &) = default;
    };

    QStringView lineText(int line) const;
    const QTextLayout &layoutOf(int line) const;
    void measure();
    Spot spotAt(QPointF pos) const;
    QColor colorFor(CodeColor color) const;

    StyledCode m_styled;
    std::vector<qsizetype> m_starts; // where each line begins in the code
    mutable std::unordered_map<int, std::unique_ptr<QTextLayout>> m_layouts;
    QFont m_font;
    qreal m_charWidth = 0;
    int m_lineHeight = 0;
    mutable int m_widest = 0;
    Spot m_anchor;
    Spot m_cursor;
    QList<TextSearch::Range> m_highlights;
    int m_currentHighlight = -1;
    void paintBackdrop(QPainter *painter, const QRect &dirty) const;

    QColor m_fill; // tint over behind, where the whole rectangle is inside the shape
    QColor m_behind;
    QColor m_tint;
    const QWidget *m_shape = nullptr;
    qreal m_radius = 0;
};

// A fenced code block: a header with the language (or "code") and a copy button, over the
// highlighted code in a strip that scrolls sideways without visible scroll bars, so a long line
// never widens the message. The copied state lives with the view and survives in-place updates.
class CodeBlockView final : public MarkdownBlockView
{
    Q_OBJECT

public:
    CodeBlockView(const QString &code, const std::optional<QString> &language, QWidget *parent = nullptr);

    // Code up to this many UTF-16 units is coloured on the spot; longer code off the main thread.
    // Streamed code is coloured on the spot as long as what it has to match again (its last line
    // and what was added) stays within this.
    static constexpr qsizetype syncHighlightLimit = 64 * 1024;

    bool setBlock(const MarkdownText::Block &block) override;
    int heightForWidth(int width) const override;
    int idealWidth() const override;
    bool fillsWidth() const override { return true; }
    QSize sizeHint() const override;
    void setFindHits(const QList<FindHit> &hits) override;
    QRect currentHitRect() const override;
    void setBackdrop(const QColor &color) override;
    // The block's rounded background: the secondary colour, faint.
    QColor tint() const;

    const QString &code() const { return m_code; }
    QString label() const;
    bool copied() const;
    void copy();

    QToolButton *copyButton() const { return m_copyButton; }
    CodeTextView *codeView() const { return m_codeView; }
    QScrollArea *scrollArea() const { return m_scroll; }

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void setContent(const QString &code, const std::optional<QString> &language);
    void updateCopyButton();
    void applyStyle();
    int headerHeight() const;
    QList<ColorRun> styledRuns() const;
    // Colours code off the main thread and shows the result if the code has not changed since.
    void highlightLater(const QString &code, const std::optional<QString> &language);

    QString m_code;
    std::optional<QString> m_language;
    QColor m_backdrop;
    QLabel *m_label;
    QToolButton *m_copyButton;
    QScrollArea *m_scroll;
    CodeTextView *m_codeView;
    CopyFeedback *m_feedback;
    std::optional<TextSearch::Range> m_currentHit;
    // The colouring of code that streams in, kept while it grows; none for code shown whole.
    std::unique_ptr<GrowingHighlighter> m_growing;
    quint64 m_highlightGeneration = 0;
    bool m_highlighting = false;
};
