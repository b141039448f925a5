#include "ui/codeblockview.h"

#include "ui/backgroundpool.h"
#include "ui/bandedpaint.h"
#include "ui/copyfeedback.h"
#include "ui/markedtext.h"
#include "ui/theme.h"

#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPaintEvent>
#include <QPointer>
#include <QResizeEvent>
#include <QScrollArea>
#include <QTextLayout>
#include <QThreadPool>
#include <QToolButton>
#include <QWheelEvent>

#include <algorithm>
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
    measure();
}

CodeTextView::~CodeTextView() = default;

void CodeTextView::measure()
{
    const QFontMetricsF metrics(m_font);
    m_lineHeight = int(std::ceil(metrics.height()));
    m_charWidth = metrics.horizontalAdvance(QLatin1Char('M'));
}

void CodeTextView::setCode(const StyledCode &code)
{
    if (code.text == m_styled.text && !m_starts.empty()) {
        // New colours for the same code, as when colouring off the main thread finishes: the
        // lines and their layouts stay.
        if (code.runs != m_styled.runs) {
            m_styled.runs = code.runs;
            update();
        }
        return;
    }
    const StyledCode old = std::exchange(m_styled, code);
    const QString &text = m_styled.text;
    const int oldLines = int(m_starts.size());

    // The first character drawn differently, by text or colour: lines before it keep their
    // layouts and stay as they are on screen.
    qsizetype first = 0;
    const qsizetype common = std::min(old.text.size(), text.size());
    if (!m_starts.empty()) {
        first = common;
        if (QStringView(old.text).first(common) != QStringView(text).first(common))
            first = 0;
        for (qsizetype i = 0; i < std::min(old.runs.size(), code.runs.size()); ++i) {
            if (old.runs.at(i) != code.runs.at(i)) {
                first = std::min(first, std::min(old.runs.at(i).start, code.runs.at(i).start));
                break;
            }
            if (old.runs.at(i).start >= first)
                break;
        }
    }
    const int firstLine =
        first == 0 ? 0 : int(std::upper_bound(m_starts.begin(), m_starts.end(), first) - m_starts.begin()) - 1;

    m_starts.resize(std::size_t(std::max(0, firstLine)));
    if (m_starts.empty())
        m_starts.push_back(0);
    for (qsizetype i = text.indexOf(u'\n', m_starts.back()); i >= 0; i = text.indexOf(u'\n', i + 1))
        m_starts.push_back(i + 1);

    // The width is reckoned from the characters; a line that proves wider when it is drawn
    // widens the view then.
    if (firstLine == 0)
        m_widest = 0;
    for (std::size_t i = std::size_t(std::max(0, firstLine)); i < m_starts.size(); ++i) {
        const QStringView line = lineText(int(i));
        qsizetype columns = 0;
        for (QChar c : line.first(std::min<qsizetype>(line.size(), maxLineLayout)))
            columns = c == u'\t' ? (columns / 4 + 1) * 4 : columns + 1;
        m_widest = std::max(m_widest, int(std::ceil(qreal(columns) * m_charWidth)));
    }
    for (auto it = m_layouts.begin(); it != m_layouts.end();) {
        if (it->first >= firstLine)
            it = m_layouts.erase(it);
        else
            ++it;
    }
    if (m_anchor.line >= lineCount() || m_cursor.line >= lineCount())
        m_anchor = m_cursor = {};

    // From the line above the first new one: a glyph may reach past the top of its line (the dots
    // of a capital Ü), and a repaint cut at that top would leave them half drawn.
    const int above = std::max(0, std::min(firstLine, oldLines) - 1);
    const int top = above == 0 ? 0 : padding + above * m_lineHeight;
    update(0, top, width(), std::max(height(), contentHeight()) - top);
}

void CodeTextView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    if (event->oldSize().width() == width() && height() > event->oldSize().height())
        MarkdownBlockView::repaintGrowth(this, event->oldSize().height());
}

QStringView CodeTextView::lineText(int line) const
{
    const qsizetype start = m_starts.at(std::size_t(line));
    const qsizetype end =
        std::size_t(line) + 1 < m_starts.size() ? m_starts.at(std::size_t(line) + 1) - 1 : m_styled.text.size();
    return QStringView(m_styled.text).sliced(start, end - start);
}

const QTextLayout &CodeTextView::layoutOf(int line) const
{
    auto it = m_layouts.find(line);
    if (it != m_layouts.end())
        return *it->second;
    // Only the lines near the screen hold layouts; a long scroll starts over rather than keep
    // every line it passed.
    if (m_layouts.size() > 2000)
        m_layouts.clear();
    QStringView text = lineText(line);
    if (text.size() > maxLineLayout)
        text = text.first(maxLineLayout - (text.at(maxLineLayout - 1).isHighSurrogate() ? 1 : 0));
    auto layout = std::make_unique<QTextLayout>(text.toString(), m_font);
    QTextOption option;
    option.setWrapMode(QTextOption::NoWrap);
    option.setTabStopDistance(m_charWidth * 4);
    layout->setTextOption(option);
    layout->setCacheEnabled(true);
    layout->beginLayout();
    QTextLine textLine = layout->createLine();
    if (textLine.isValid()) {
        textLine.setLineWidth(unwrappedWidth);
        textLine.setPosition(QPointF(0, 0));
    }
    layout->endLayout();
    const int width = textLine.isValid() ? int(std::ceil(textLine.naturalTextWidth())) : 0;
    if (width > m_widest) {
        m_widest = width;
        // Not while painting: the owner resizes the view when the event loop comes back.
        QMetaObject::invokeMethod(const_cast<CodeTextView *>(this), &CodeTextView::contentWidthChanged,
                                  Qt::QueuedConnection);
    }
    return *m_layouts.emplace(line, std::move(layout)).first->second;
}

int CodeTextView::contentHeight() const
{
    const bool cut = lineCount() > maxShownLines;
    return 2 * padding + (shownLineCount() + (cut ? 1 : 0)) * m_lineHeight;
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

void CodeTextView::setBackdrop(const QColor &behind, const QColor &tint, const QWidget *shape, qreal radius)
{
    const bool opaque = behind.isValid() && behind.alpha() == 255 && shape;
    m_fill = opaque ? paintedOver(behind, tint) : QColor();
    m_behind = behind;
    m_tint = tint;
    m_shape = shape;
    m_radius = radius;
    setAttribute(Qt::WA_OpaquePaintEvent, opaque);
    update();
}

void CodeTextView::paintBackdrop(QPainter *painter, const QRect &dirty) const
{
    painter->fillRect(dirty, m_fill);
    // The owner's rounded corners that fall on this view are painted here as the owner paints
    // them: the same path, at a whole-pixel offset, over the same colour.
    const QRect shape(mapFrom(m_shape, QPoint(0, 0)), m_shape->size());
    const int side = int(std::ceil(m_radius)) + 1;
    QPainterPath path;
    for (const QPoint corner :
         {shape.topLeft(), shape.topRight() - QPoint(side - 1, 0), shape.bottomLeft() - QPoint(0, side - 1),
          shape.bottomRight() - QPoint(side - 1, side - 1)}) {
        const QRect square = QRect(corner, QSize(side, side)) & dirty;
        if (square.isEmpty())
            continue;
        if (path.isEmpty())
            path.addRoundedRect(QRectF(shape), m_radius, m_radius);
        painter->save();
        painter->setClipRect(square);
        painter->fillRect(square, m_behind);
        painter->setRenderHint(QPainter::Antialiasing);
        painter->fillPath(path, m_tint);
        painter->restore();
    }
}

void CodeTextView::paintEvent(QPaintEvent *event)
{
    QPainter painter(this);
    const QRect dirty = event->rect();
    if (m_fill.isValid())
        paintBackdrop(&painter, dirty);
    if (m_starts.empty() || m_lineHeight <= 0)
        return;
    const int first = std::max(0, (dirty.top() - padding) / m_lineHeight);
    const int last = std::min(shownLineCount() - 1, (dirty.bottom() - padding) / m_lineHeight);
    const Spot from = std::min(m_anchor, m_cursor);
    const Spot to = std::max(m_anchor, m_cursor);
    QTextCharFormat selected;
    selected.setBackground(palette().color(QPalette::Highlight));
    selected.setForeground(palette().color(QPalette::HighlightedText));

    painter.setPen(colorFor(CodeColor::Base));
    const QList<ColorRun> &runs = m_styled.runs;
    QList<MarkedText::Mark> marks;
    for (int i = first; i <= last; ++i) {
        const QTextLayout &layout = layoutOf(i);
        const qsizetype start = m_starts.at(std::size_t(i));
        const qsizetype end = start + layout.text().size();
        QList<QTextLayout::FormatRange> formats;
        auto run = std::upper_bound(runs.cbegin(), runs.cend(), start,
                                    [](qsizetype at, const ColorRun &r) { return at < r.start; });
        if (run != runs.cbegin())
            --run;
        for (; run != runs.cend() && run->start < end; ++run) {
            const qsizetype a = std::max(run->start, start);
            const qsizetype b = std::min(run->start + run->length, end);
            if (b <= a || run->color == CodeColor::Base)
                continue;
            QTextCharFormat format;
            format.setForeground(colorFor(run->color));
            formats.append({int(a - start), int(b - a), format});
        }
        marks.clear();
        auto hit = std::lower_bound(m_highlights.cbegin(), m_highlights.cend(), start,
                                    [](const TextSearch::Range &r, qsizetype at) { return r.start + r.length <= at; });
        for (; hit != m_highlights.cend() && hit->start < end; ++hit) {
            const qsizetype a = std::max(hit->start, start);
            const qsizetype b = std::min(hit->start + hit->length, end);
            if (b > a)
                marks.append({int(a - start), int(b - a), hit - m_highlights.cbegin() == m_currentHighlight});
        }
        const QPointF at(padding, padding + i * m_lineHeight);
        if (from != to && i >= from.line && i <= to.line) {
            // The selection is drawn over the hits, as the layout draws its selections in turn.
            for (const MarkedText::Mark &mark : std::as_const(marks))
                formats.append(Theme::findHighlight(mark.start, mark.length, mark.current));
            const int a = i == from.line ? from.column : 0;
            const int b = i == to.line ? to.column : int(layout.text().size()) + 1;
            formats.append({a, b - a, selected});
            layout.draw(&painter, at, formats);
        } else {
            MarkedText::draw(&painter, layout, at, formats, marks);
        }
    }
    if (lineCount() > maxShownLines) {
        painter.setPen(colorFor(CodeColor::Comment));
        QFont italic = m_font;
        italic.setItalic(true);
        painter.setFont(italic);
        painter.drawText(
            QPointF(padding, padding + maxShownLines * m_lineHeight + QFontMetricsF(m_font).ascent()),
            tr("… %L1 more lines not shown here; Copy code takes all of them.").arg(lineCount() - maxShownLines));
    }
}

void CodeTextView::setHighlights(const QList<TextSearch::Range> &ranges, int current)
{
    if (ranges == m_highlights && current == m_currentHighlight)
        return;
    m_highlights = ranges;
    m_currentHighlight = current;
    update();
}

QRect CodeTextView::rangeRect(const TextSearch::Range &range) const
{
    if (m_starts.empty() || m_lineHeight <= 0)
        return {};
    const int line = int(std::upper_bound(m_starts.begin(), m_starts.end(), range.start) - m_starts.begin()) - 1;
    if (line < 0 || line >= shownLineCount())
        return {};
    const QTextLayout &layout = layoutOf(line);
    const qsizetype column = range.start - m_starts.at(std::size_t(line));
    if (layout.lineCount() == 0 || column > layout.text().size())
        return {};
    const QTextLine text = layout.lineAt(0);
    const qreal x = text.cursorToX(int(column));
    const qreal right = text.cursorToX(int(std::min(column + range.length, layout.text().size())));
    return QRectF(padding + x, padding + line * m_lineHeight, std::max<qreal>(1, right - x), m_lineHeight)
        .toAlignedRect();
}

void CodeTextView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange)
        update();
    if (event->type() == QEvent::FontChange || event->type() == QEvent::ApplicationFontChange) {
        m_font = Theme::monospaceFont();
        measure();
        m_layouts.clear();
        const StyledCode code = std::exchange(m_styled, {});
        m_starts.clear();
        setCode(code);
        updateGeometry();
        update();
    }
    QWidget::changeEvent(event);
}

CodeTextView::Spot CodeTextView::spotAt(QPointF pos) const
{
    if (m_starts.empty())
        return {};
    const int line = std::clamp(int((pos.y() - padding) / m_lineHeight), 0, shownLineCount() - 1);
    const QTextLayout &layout = layoutOf(line);
    const int column = layout.lineCount() ? layout.lineAt(0).xToCursor(pos.x() - padding) : 0;
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
    m_cursor = {spot.line, int(lineText(spot.line).size())};
    update();
}

void CodeTextView::keyPressEvent(QKeyEvent *event)
{
    if (event->matches(QKeySequence::Copy)) {
        const QString text = selectedText();
        if (!text.isEmpty())
            CopyFeedback::writeClipboard(text);
        return;
    }
    if (event->matches(QKeySequence::SelectAll) && !m_starts.empty()) {
        m_anchor = {};
        m_cursor = {lineCount() - 1, int(lineText(lineCount() - 1).size())};
        update();
        return;
    }
    QWidget::keyPressEvent(event);
}

QString CodeTextView::selectedText() const
{
    const Spot from = std::min(m_anchor, m_cursor);
    const Spot to = std::max(m_anchor, m_cursor);
    if (from == to || m_starts.empty())
        return {};
    const qsizetype start =
        m_starts.at(std::size_t(from.line)) + std::min<qsizetype>(from.column, lineText(from.line).size());
    const qsizetype end = m_starts.at(std::size_t(to.line)) + std::min<qsizetype>(to.column, lineText(to.line).size());
    return m_styled.text.sliced(start, end - start);
}

void CodeBlockView::setFindHits(const QList<FindHit> &hits)
{
    const FindMarks marks = findMarks(hits);
    m_currentHit = marks.currentRange;
    m_codeView->setHighlights(marks.ranges, marks.current);
    if (!m_currentHit)
        return;
    const QRect hit = m_codeView->rangeRect(*m_currentHit);
    // Measuring the hit's line may have found the code wider than reckoned: the strip must reach it.
    m_codeView->resize(std::max(m_codeView->contentWidth(), m_scroll->viewport()->width()),
                       m_codeView->contentHeight());
    scrollSidewaysTo(m_scroll, hit);
}

QRect CodeBlockView::currentHitRect() const
{
    const QRect hit = m_currentHit ? m_codeView->rangeRect(*m_currentHit) : QRect();
    return hit.isEmpty() ? QRect() : QRect(m_codeView->mapTo(this, hit.topLeft()), hit.size());
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
    connect(m_codeView, &CodeTextView::contentWidthChanged, this,
            [this] { m_codeView->resize(std::max(m_codeView->contentWidth(), width()), m_codeView->contentHeight()); });

    setUpSidewaysScroll(m_scroll, m_codeView, this);
    // The strip grows with every streamed line: only the new lines are painted, not all the code.
    m_scroll->setAttribute(Qt::WA_StaticContents);
    m_scroll->viewport()->setAttribute(Qt::WA_StaticContents);
    setAttribute(Qt::WA_StaticContents);
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
    if (!codeChanged && !languageChanged)
        return;
    const std::optional<QString> lowered = language ? std::optional(language->toLower()) : std::nullopt;
    // Code still streaming in is coloured from where it grew; caching each prefix would only push
    // finished blocks out of the cache.
    const bool growing = grew && m_growing && code.size() - m_growing->lastLineStart() <= syncHighlightLimit;
    if (growing || (grew && code.size() <= syncHighlightLimit)) {
        ++m_highlightGeneration;
        if (!growing)
            m_growing = std::make_unique<GrowingHighlighter>(lowered);
        m_codeView->setCode(m_growing->highlight(code));
    } else if (code.size() <= syncHighlightLimit) {
        ++m_highlightGeneration;
        m_growing.reset();
        m_codeView->setCode(SyntaxHighlighter::highlighted(code, language));
    } else {
        m_growing.reset();
        // Colouring this much code takes longer than the window may stop answering: the code is
        // shown at once in the colours known so far and coloured off the main thread.
        StyledCode interim;
        interim.text = code;
        // The runs are shared, not copied: text past the last run is drawn in the base colour.
        if (grew)
            interim.runs = styledRuns();
        m_codeView->setCode(interim);
        highlightLater(code, lowered);
    }
    m_codeView->resize(std::max(m_codeView->contentWidth(), m_scroll->viewport()->width()),
                       m_codeView->contentHeight());
}

QList<ColorRun> CodeBlockView::styledRuns() const
{
    return m_codeView->styledCode().runs;
}

void CodeBlockView::highlightLater(const QString &code, const std::optional<QString> &language)
{
    const quint64 generation = ++m_highlightGeneration;
    // One colouring at a time: while one runs, a newer text waits for it and only the newest is
    // coloured next, so a fast stream costs a few passes, not one per update.
    if (m_highlighting)
        return;
    m_highlighting = true;
    QPointer<CodeBlockView> self(this);
    backgroundPool()->start([self, code, language, generation] {
        StyledCode styled = SyntaxHighlighter::build(code, language);
        QMetaObject::invokeMethod(
            qApp,
            [self, styled = std::move(styled), generation] {
                if (!self)
                    return;
                self->m_highlighting = false;
                if (generation == self->m_highlightGeneration && styled.text == self->m_code) {
                    self->m_codeView->setCode(styled);
                } else if (self->m_code.size() > syncHighlightLimit) {
                    self->highlightLater(self->m_code,
                                         self->m_language ? std::optional(self->m_language->toLower()) : std::nullopt);
                }
            },
            Qt::QueuedConnection);
    });
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
    m_codeView->setBackdrop(m_backdrop, tint(), this, cornerRadius);
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

QColor CodeBlockView::tint() const
{
    return Theme::withOpacity(Theme::color(Theme::Color::Secondary, palette()), 0.12);
}

void CodeBlockView::setBackdrop(const QColor &color)
{
    m_backdrop = color;
    m_codeView->setBackdrop(color, tint(), this, cornerRadius);
}

void CodeBlockView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    BandedPaint::fillRoundedRect(painter, rect(), cornerRadius, tint());
}

bool CodeBlockView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_scroll->viewport() && event->type() == QEvent::Wheel &&
        passVerticalWheel(this, static_cast<QWheelEvent *>(event)))
        return true;
    return MarkdownBlockView::eventFilter(watched, event);
}

void CodeBlockView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyStyle();
    MarkdownBlockView::changeEvent(event);
}
