#include "ui/codeblockview.h"

#include "ui/copyfeedback.h"
#include "ui/theme.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPaintEvent>
#include <QResizeEvent>
#include <QScrollArea>
#include <QTextLayout>
#include <QToolButton>

#include <cmath>

namespace {

constexpr qreal unwrappedWidth = 1e7;
constexpr int headerPadH = 8;
constexpr int headerPadV = 4;
constexpr qreal cornerRadius = 6;

} // namespace

CodeTextView::CodeTextView(QWidget *parent)
    : QWidget(parent)
    , m_font(Theme::monospaceFont())
{
    // New lines repaint only themselves (setCode()); nothing above them moves.
    setAttribute(Qt::WA_StaticContents);
    setFocusPolicy(Qt::ClickFocus);
    setCursor(Qt::IBeamCursor);
    m_lineHeight = int(std::ceil(QFontMetricsF(m_font).height()));
}

CodeTextView::~CodeTextView() = default;

void CodeTextView::setCode(const StyledCode &code)
{
    if (code.text == m_code && !m_lines.empty())
        return;
    m_code = code.text;
    const QStringList texts = code.text.split(QLatin1Char('\n'));
    const bool shrank = texts.size() < qsizetype(m_lines.size());
    m_lines.resize(std::size_t(texts.size()));

    qsizetype runIndex = 0;
    qsizetype lineStart = 0;
    m_widest = 0;
    for (qsizetype i = 0; i < texts.size(); ++i) {
        const QString &text = texts.at(i);
        const qsizetype lineEnd = lineStart + text.size();
        QList<ColorRun> runs;
        while (runIndex < code.runs.size() && code.runs.at(runIndex).start < lineEnd) {
            const ColorRun &run = code.runs.at(runIndex);
            const qsizetype start = std::max(run.start, lineStart);
            const qsizetype end = std::min(run.start + run.length, lineEnd);
            if (end > start && run.color != CodeColor::Base)
                runs.append({start - lineStart, end - start, run.color});
            if (run.start + run.length > lineEnd)
                break;
            ++runIndex;
        }
        Line &line = m_lines[std::size_t(i)];
        // A line that reads and looks as before keeps its layout.
        if (!line.layout || line.text != text || line.runs != runs) {
            line.text = text;
            line.runs = runs;
            layOutLine(line);
            update(0, CodeTextView::padding + int(i) * m_lineHeight, width(), m_lineHeight);
        }
        m_widest = std::max(m_widest, line.width);
        lineStart = lineEnd + 1; // the line feed
    }
    setAccessibleName(m_code);
    if (shrank)
        update();
}

void CodeTextView::layOutLine(Line &line) const
{
    line.layout = std::make_unique<QTextLayout>(line.text, m_font);
    QTextOption option;
    option.setWrapMode(QTextOption::NoWrap);
    option.setTabStopDistance(QFontMetricsF(m_font).horizontalAdvance(QLatin1Char(' ')) * 4);
    line.layout->setTextOption(option);
    line.layout->setCacheEnabled(true);
    line.layout->beginLayout();
    QTextLine textLine = line.layout->createLine();
    if (textLine.isValid()) {
        textLine.setLineWidth(unwrappedWidth);
        textLine.setPosition(QPointF(0, 0));
    }
    line.layout->endLayout();
    line.width = textLine.isValid() ? int(std::ceil(textLine.naturalTextWidth())) : 0;
}

void CodeTextView::relayOutAll()
{
    m_lineHeight = int(std::ceil(QFontMetricsF(m_font).height()));
    m_widest = 0;
    for (Line &line : m_lines) {
        layOutLine(line);
        m_widest = std::max(m_widest, line.width);
    }
    updateGeometry();
    update();
}

int CodeTextView::contentHeight() const
{
    return 2 * padding + int(m_lines.size()) * m_lineHeight;
}

int CodeTextView::contentWidth() const
{
    return 2 * padding + m_widest;
}

QSize CodeTextView::sizeHint() const
{
    return {contentWidth(), contentHeight()};
}

QColor CodeTextView::colorFor(CodeColor color) const
{
    const QPalette &pal = palette();
    switch (color) {
    case CodeColor::Keyword:
        return Theme::color(Theme::Color::Pink, pal);
    case CodeColor::Type:
        return Theme::color(Theme::Color::Purple, pal);
    case CodeColor::Number:
        return Theme::color(Theme::Color::Orange, pal);
    case CodeColor::String:
        return Theme::color(Theme::Color::Red, pal);
    case CodeColor::Comment:
        return Theme::color(Theme::Color::Grey, pal);
    case CodeColor::Base:
        break;
    }
    return Theme::color(Theme::Color::Primary, pal);
}

void CodeTextView::paintEvent(QPaintEvent *event)
{
    if (m_lines.empty() || m_lineHeight <= 0)
        return;
    QPainter painter(this);
    const QRect dirty = event->rect();
    const int first = std::max(0, (dirty.top() - padding) / m_lineHeight);
    const int last = std::min(int(m_lines.size()) - 1, (dirty.bottom() - padding) / m_lineHeight);
    const Spot from = std::min(m_anchor, m_cursor);
    const Spot to = std::max(m_anchor, m_cursor);
    QTextCharFormat selected;
    selected.setBackground(palette().color(QPalette::Highlight));
    selected.setForeground(palette().color(QPalette::HighlightedText));

    painter.setPen(colorFor(CodeColor::Base));
    for (int i = first; i <= last; ++i) {
        const Line &line = m_lines.at(std::size_t(i));
        QList<QTextLayout::FormatRange> formats;
        formats.reserve(line.runs.size() + 1);
        for (const ColorRun &run : line.runs) {
            QTextCharFormat format;
            format.setForeground(colorFor(run.color));
            formats.append({int(run.start), int(run.length), format});
        }
        if (from != to && i >= from.line && i <= to.line) {
            const int start = i == from.line ? from.column : 0;
            const int end = i == to.line ? to.column : int(line.text.size()) + 1;
            formats.append({start, end - start, selected});
        }
        line.layout->draw(&painter, QPointF(padding, padding + i * m_lineHeight), formats);
    }
}

void CodeTextView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange)
        update();
    if (event->type() == QEvent::FontChange || event->type() == QEvent::ApplicationFontChange) {
        m_font = Theme::monospaceFont();
        relayOutAll();
    }
    QWidget::changeEvent(event);
}

CodeTextView::Spot CodeTextView::spotAt(QPointF pos) const
{
    if (m_lines.empty())
        return {};
    const int line = std::clamp(int((pos.y() - padding) / m_lineHeight), 0, int(m_lines.size()) - 1);
    const QTextLayout *layout = m_lines.at(std::size_t(line)).layout.get();
    const int column = layout->lineCount() ? layout->lineAt(0).xToCursor(pos.x() - padding) : 0;
    return {line, column};
}

void CodeTextView::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton) {
        m_anchor = m_cursor = spotAt(event->position());
        update();
    }
    QWidget::mousePressEvent(event);
}

void CodeTextView::mouseMoveEvent(QMouseEvent *event)
{
    if (event->buttons() & Qt::LeftButton) {
        m_cursor = spotAt(event->position());
        update();
    }
    QWidget::mouseMoveEvent(event);
}

void CodeTextView::mouseDoubleClickEvent(QMouseEvent *event)
{
    // A double click takes the whole line, the quickest way to grab one command.
    const Spot spot = spotAt(event->position());
    m_anchor = {spot.line, 0};
    m_cursor = {spot.line, int(m_lines.at(std::size_t(spot.line)).text.size())};
    update();
}

void CodeTextView::keyPressEvent(QKeyEvent *event)
{
    if (event->matches(QKeySequence::Copy)) {
        const QString text = selectedText();
        if (!text.isEmpty())
            QGuiApplication::clipboard()->setText(text);
        return;
    }
    if (event->matches(QKeySequence::SelectAll) && !m_lines.empty()) {
        m_anchor = {};
        m_cursor = {int(m_lines.size()) - 1, int(m_lines.back().text.size())};
        update();
        return;
    }
    QWidget::keyPressEvent(event);
}

QString CodeTextView::selectedText() const
{
    const Spot from = std::min(m_anchor, m_cursor);
    const Spot to = std::max(m_anchor, m_cursor);
    if (from == to || m_lines.empty())
        return {};
    QStringList parts;
    for (int i = from.line; i <= to.line && i < int(m_lines.size()); ++i) {
        const QString &text = m_lines.at(std::size_t(i)).text;
        const int start = i == from.line ? from.column : 0;
        const int end = i == to.line ? to.column : int(text.size());
        parts.append(text.mid(start, end - start));
    }
    return parts.join(QLatin1Char('\n'));
}

CodeBlockView::CodeBlockView(const QString &code, const std::optional<QString> &language, QWidget *parent)
    : MarkdownBlockView(parent)
    , m_label(new QLabel(this))
    , m_copyButton(new QToolButton(this))
    , m_scroll(new QScrollArea(this))
    , m_codeView(new CodeTextView)
    , m_feedback(new CopyFeedback(this))
{
    m_label->setTextFormat(Qt::PlainText);
    m_copyButton->setAutoRaise(true);
    m_copyButton->setFocusPolicy(Qt::TabFocus);
    m_copyButton->setToolTip(tr("Copy code"));
    m_copyButton->setAccessibleName(tr("Copy code"));
    m_copyButton->setCursor(Qt::PointingHandCursor);
    connect(m_copyButton, &QToolButton::clicked, this, &CodeBlockView::copy);
    connect(m_feedback, &CopyFeedback::copiedChanged, this, &CodeBlockView::updateCopyButton);

    m_scroll->setFrameShape(QFrame::NoFrame);
    m_scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_scroll->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_scroll->setWidgetResizable(false);
    m_scroll->setFocusPolicy(Qt::NoFocus);
    m_scroll->viewport()->setAutoFillBackground(false);
    m_scroll->viewport()->setAttribute(Qt::WA_StaticContents);
    setAttribute(Qt::WA_StaticContents);
    m_scroll->setWidget(m_codeView);
    m_codeView->setAutoFillBackground(false);

    applyStyle();
    updateCopyButton();
    setContent(code, language);
}

bool CodeBlockView::setBlock(const MarkdownText::Block &block)
{
    if (block.kind != MarkdownText::Block::Kind::Code)
        return false;
    setContent(block.code, block.language);
    return true;
}

void CodeBlockView::setContent(const QString &code, const std::optional<QString> &language)
{
    const bool languageChanged = language != m_language || m_label->text().isEmpty();
    const bool codeChanged = code != m_code || m_codeView->code().isNull();
    const bool grew = !languageChanged && !m_code.isEmpty() && code.startsWith(m_code);
    m_code = code;
    m_language = language;
    if (languageChanged) {
        m_label->setText(label());
        setAccessibleName(label());
    }
    if (codeChanged || languageChanged) {
        // Code still streaming in is highlighted once per prefix; caching each prefix would only
        // push finished blocks out of the cache.
        m_codeView->setCode(
            grew ? SyntaxHighlighter::build(code, language ? std::optional(language->toLower()) : std::nullopt)
                 : SyntaxHighlighter::highlighted(code, language));
        m_codeView->resize(std::max(m_codeView->contentWidth(), m_scroll->viewport()->width()),
                           m_codeView->contentHeight());
    }
}

QString CodeBlockView::label() const
{
    return m_language ? *m_language : QStringLiteral("code");
}

bool CodeBlockView::copied() const
{
    return m_feedback->copied();
}

void CodeBlockView::copy()
{
    m_feedback->copy(m_code);
}

void CodeBlockView::updateCopyButton()
{
    m_copyButton->setIcon(
        Theme::symbolIcon(m_feedback->copied() ? QLatin1StringView("checkmark") : QLatin1StringView("doc.on.doc")));
}

void CodeBlockView::applyStyle()
{
    const QFont caption = Theme::font(Theme::TextStyle::Caption2);
    m_label->setFont(caption);
    QPalette labelPalette = m_label->palette();
    labelPalette.setColor(QPalette::WindowText, Theme::color(Theme::Color::Secondary, palette()));
    m_label->setPalette(labelPalette);
    const int iconSize = std::max(8, caption.pixelSize());
    m_copyButton->setIconSize(QSize(iconSize, iconSize));
}

int CodeBlockView::headerHeight() const
{
    return std::max(m_label->sizeHint().height(), m_copyButton->sizeHint().height()) + 2 * headerPadV;
}

int CodeBlockView::heightForWidth(int) const
{
    return headerHeight() + m_codeView->contentHeight();
}

int CodeBlockView::idealWidth() const
{
    const int header = 2 * headerPadH + m_label->sizeHint().width() + m_copyButton->sizeHint().width();
    return std::max(header, m_codeView->contentWidth());
}

QSize CodeBlockView::sizeHint() const
{
    return {idealWidth(), heightForWidth(idealWidth())};
}

void CodeBlockView::resizeEvent(QResizeEvent *event)
{
    MarkdownBlockView::resizeEvent(event);
    // The rounded background: a new width redraws it all, a new height its lower edge.
    if (event->oldSize().width() != width()) {
        update();
    } else if (event->oldSize().height() != height()) {
        const int edge = int(cornerRadius) + 1;
        const int top = std::min(event->oldSize().height(), height()) - edge;
        update(QRect(0, top, width(), height() - top));
    }
    const int header = headerHeight();
    const QSize label = m_label->sizeHint();
    const QSize button = m_copyButton->sizeHint();
    m_label->setGeometry(headerPadH, (header - label.height()) / 2, label.width(), label.height());
    m_copyButton->setGeometry(width() - headerPadH - button.width(), (header - button.height()) / 2, button.width(),
                              button.height());
    m_scroll->setGeometry(0, header, width(), m_codeView->contentHeight());
    m_codeView->resize(std::max(m_codeView->contentWidth(), width()), m_codeView->contentHeight());
}

void CodeBlockView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath path;
    path.addRoundedRect(QRectF(rect()), cornerRadius, cornerRadius);
    painter.fillPath(path, Theme::withOpacity(Theme::color(Theme::Color::Secondary, palette()), 0.12));
}

void CodeBlockView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyStyle();
    MarkdownBlockView::changeEvent(event);
}
