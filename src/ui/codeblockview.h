#pragma once

#include "render/syntaxhighlighter.h"
#include "ui/markdowntextview.h"

#include <memory>
#include <optional>
#include <vector>

class CopyFeedback;
class QLabel;
class QScrollArea;
class QTextLayout;
class QToolButton;

// Highlighted code, one cached layout per line, never wrapped. Selectable with the mouse and
// copied with the keyboard's copy shortcut. When the code grows, only lines whose text or
// colours changed are laid out again.
class CodeTextView final : public QWidget
{
    Q_OBJECT

public:
    explicit CodeTextView(QWidget *parent = nullptr);
    ~CodeTextView() override;

    void setCode(const StyledCode &code);
    const QString &code() const { return m_code; }
    QString selectedText() const;

    // Padding around the code on all sides.
    static constexpr int padding = 8;
    int contentHeight() const;
    int contentWidth() const;
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;
    void changeEvent(QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    struct Line
    {
        QString text;
        QList<ColorRun> runs; // relative to the line's start
        std::unique_ptr<QTextLayout> layout;
        int width = 0;
    };
    // A place in the code: line and column.
    struct Spot
    {
        int line = 0;
        int column = 0;
        friend auto operator<=>(const Spot &, const Spot &) = default;
    };

    void layOutLine(Line &line) const;
    void relayOutAll();
    Spot spotAt(QPointF pos) const;
    QColor colorFor(CodeColor color) const;

    QString m_code;
    std::vector<Line> m_lines;
    QFont m_font;
    int m_lineHeight = 0;
    int m_widest = 0;
    Spot m_anchor;
    Spot m_cursor;
};

// A fenced code block: a header with the language (or "code") and a copy button, over the
// highlighted code in a strip that scrolls sideways without visible scroll bars, so a long line
// never widens the message. The copied state lives with the view and survives in-place updates.
class CodeBlockView final : public MarkdownBlockView
{
    Q_OBJECT

public:
    CodeBlockView(const QString &code, const std::optional<QString> &language, QWidget *parent = nullptr);

    bool setBlock(const MarkdownText::Block &block) override;
    int heightForWidth(int width) const override;
    int idealWidth() const override;
    bool fillsWidth() const override { return true; }
    QSize sizeHint() const override;

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

private:
    void setContent(const QString &code, const std::optional<QString> &language);
    void updateCopyButton();
    void applyStyle();
    int headerHeight() const;

    QString m_code;
    std::optional<QString> m_language;
    QLabel *m_label;
    QToolButton *m_copyButton;
    QScrollArea *m_scroll;
    CodeTextView *m_codeView;
    CopyFeedback *m_feedback;
};
