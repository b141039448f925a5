#include "ui/markdowntextview.h"

#include "ui/codeblockview.h"
#include "ui/tableblockview.h"
#include "ui/theme.h"

#include <QAbstractScrollArea>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QEvent>
#include <QImage>
#include <QMouseEvent>
#include <QPainter>
#include <QResizeEvent>
#include <QScrollArea>
#include <QScrollBar>
#include <QUrl>
#include <QWheelEvent>

#include <cmath>
#include <utility>

namespace {

using Kind = MarkdownText::Block::Kind;

constexpr int prefixGap = 6;  // between a bullet or number and its text
constexpr int quoteBar = 3;   // width of a quote's bar
constexpr int quoteGap = 8;   // between the bar and the quote's text
constexpr int headingPad = 2; // above a heading

bool isTextKind(Kind kind)
{
    return kind == Kind::Heading || kind == Kind::Paragraph || kind == Kind::Bullet || kind == Kind::Ordered ||
           kind == Kind::Quote;
}

int headingPixelSize(qint64 level)
{
    switch (level) {
    case 1:
        return 22;
    case 2:
        return 19;
    case 3:
        return 17;
    default:
        return 15;
    }
}

QString bulletGlyph()
{
    return QString(QChar(0x2022));
}

QString orderedLabel(qint64 number)
{
    return QString::number(number) + QLatin1Char('.');
}

// Digits of equal width: every digit gets the cell of the widest one.
int digitCell(const QFontMetrics &metrics)
{
    int widest = 0;
    for (char c = '0'; c <= '9'; ++c)
        widest = std::max(widest, metrics.horizontalAdvance(QLatin1Char(c)));
    return widest;
}

int orderedLabelWidth(const QFontMetrics &metrics, qint64 number)
{
    const QString label = orderedLabel(number);
    int width = 0;
    for (QChar c : label)
        width += c.isDigit() ? digitCell(metrics) : metrics.horizontalAdvance(c);
    return width;
}

} // namespace

void MarkdownBlockView::repaintGrowth(QWidget *view, int oldHeight)
{
    // Qt repaints the rows an opaque view grows into with what lies around it, in one pass over
    // the window, and the lines the view marked as changed on their own first: both are drawn at
    // once when the new rows are marked here too.
    view->update(QRect(0, oldHeight, view->width(), view->height() - oldHeight));
}

bool MarkdownBlockView::passVerticalWheel(QWidget *block, QWheelEvent *wheel)
{
    if (qAbs(wheel->angleDelta().y()) < qAbs(wheel->angleDelta().x()))
        return false;
    // Sent on to the enclosing scroll area's viewport: a forwarded event does not propagate.
    for (QWidget *w = block->parentWidget(); w; w = w->parentWidget()) {
        if (auto *area = qobject_cast<QAbstractScrollArea *>(w)) {
            const QPointF at = area->viewport()->mapFromGlobal(wheel->globalPosition());
            QWheelEvent copy(at, wheel->globalPosition(), wheel->pixelDelta(), wheel->angleDelta(), wheel->buttons(),
                             wheel->modifiers(), wheel->phase(), wheel->inverted(), wheel->source());
            QCoreApplication::sendEvent(area->viewport(), &copy);
            return true;
        }
    }
    return false;
}

TextBlockView::TextBlockView(const MarkdownText::Block &block, QWidget *parent)
    : MarkdownBlockView(parent)
{
    // Growing downwards repaints only the new strip; a new width repaints all (resizeEvent).
    setAttribute(Qt::WA_StaticContents);
    setMouseTracking(true);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    setBlock(block);
    measurePrefix();
}

bool TextBlockView::setBlock(const MarkdownText::Block &block)
{
    if (!isTextKind(block.kind))
        return false;
    const bool restyled = block.kind != m_block.kind || block.level != m_block.level || block.number != m_block.number;
    m_block = block;
    // A streamed paragraph changes only its text: its font and its bullet or number stay, and
    // measuring them again would shape text on every update.
    if (m_text.setFont(blockFont()) || restyled)
        measurePrefix();
    m_text.setSource(block.text);
    // A block not placed yet keeps no layout: its first width may not be its last.
    if (restyled || width() <= 0 || !testAttribute(Qt::WA_Resized)) {
        update();
    } else {
        // Lines above the first changed character stay as they are on screen.
        m_text.heightForWidth(width() - m_leading);
        update(QRect(0, topPadding() + m_text.changedTop(), width(), height()));
    }
    return true;
}

QFont TextBlockView::blockFont() const
{
    if (m_block.kind == Kind::Heading)
        return Theme::systemFont(headingPixelSize(m_block.level), QFont::Bold);
    return font();
}

int TextBlockView::topPadding() const
{
    return m_block.kind == Kind::Heading ? headingPad : 0;
}

void TextBlockView::measurePrefix()
{
    const QFontMetrics metrics(m_text.font());
    m_prefixHeight = 0;
    switch (m_block.kind) {
    case Kind::Bullet:
        m_leading = metrics.horizontalAdvance(bulletGlyph()) + prefixGap;
        m_prefixHeight = metrics.height();
        break;
    case Kind::Ordered:
        m_leading = orderedLabelWidth(metrics, m_block.number) + prefixGap;
        m_prefixHeight = metrics.height();
        break;
    case Kind::Quote:
        m_leading = quoteBar + quoteGap;
        break;
    default:
        m_leading = 0;
        break;
    }
}

int TextBlockView::leadingWidth() const
{
    return m_leading;
}

int TextBlockView::heightForWidth(int width) const
{
    return topPadding() + std::max(m_text.heightForWidth(width - m_leading), m_prefixHeight);
}

int TextBlockView::idealWidth() const
{
    return leadingWidth() + m_text.idealWidth();
}

int TextBlockView::textRight() const
{
    return leadingWidth() + int(std::ceil(m_text.laidOutRight()));
}

bool TextBlockView::fillsWidth() const
{
    return m_block.kind == Kind::Paragraph || m_block.kind == Kind::Bullet || m_block.kind == Kind::Ordered;
}

QSize TextBlockView::sizeHint() const
{
    const int w = idealWidth();
    return {w, heightForWidth(w)};
}

QString TextBlockView::displayText() const
{
    switch (m_block.kind) {
    case Kind::Bullet:
        return bulletGlyph() + QLatin1Char(' ') + m_text.plainText();
    case Kind::Ordered:
        return orderedLabel(m_block.number) + QLatin1Char(' ') + m_text.plainText();
    default:
        return QString(m_text.plainText()).replace(QChar::LineSeparator, QLatin1Char('\n'));
    }
}

QColor paintedOver(const QColor &under, const QColor &over)
{
    // Blended by the same code that fills the window, so a view filling its own rectangle with
    // the result cannot differ by a shade from what is painted around it.
    QImage pixel(1, 1, QImage::Format_ARGB32_Premultiplied);
    pixel.fill(under);
    QPainter painter(&pixel);
    painter.fillRect(pixel.rect(), over);
    painter.end();
    return pixel.pixelColor(0, 0);
}

void TextBlockView::setBackdrop(const QColor &color)
{
    const QColor opaque = color.isValid() && color.alpha() == 255 ? color : QColor();
    if (opaque == m_backdrop)
        return;
    m_backdrop = opaque;
    setAttribute(Qt::WA_OpaquePaintEvent, m_backdrop.isValid());
    update();
}

void TextBlockView::paintEvent(QPaintEvent *event)
{
    QPainter painter(this);
    if (m_backdrop.isValid())
        painter.fillRect(event->rect(), m_backdrop);
    const QPalette pal = palette();
    const QColor secondary = Theme::color(Theme::Color::Secondary, pal);
    const QColor primary = Theme::color(Theme::Color::Primary, pal);
    const QColor link = pal.color(QPalette::Link);
    const int leading = leadingWidth();
    // The text is laid out for this width already when the stack placed the block.
    m_text.heightForWidth(width() - leading);

    painter.setFont(m_text.font());
    const QFontMetrics metrics(m_text.font());
    switch (m_block.kind) {
    case Kind::Bullet:
        painter.setPen(primary);
        painter.drawText(QPoint(0, metrics.ascent()), bulletGlyph());
        break;
    case Kind::Ordered: {
        painter.setPen(primary);
        const int cell = digitCell(metrics);
        int x = 0;
        for (QChar c : orderedLabel(m_block.number)) {
            const int advance = c.isDigit() ? cell : metrics.horizontalAdvance(c);
            painter.drawText(QRect(x, 0, advance, metrics.height()), Qt::AlignHCenter | Qt::AlignTop, QString(c));
            x += advance;
        }
        break;
    }
    case Kind::Quote:
        painter.fillRect(QRect(0, 0, quoteBar, height()), Theme::withOpacity(secondary, 0.4));
        break;
    default:
        break;
    }
    const QPointF origin(leading, topPadding());
    m_text.draw(&painter, origin, m_block.kind == Kind::Quote ? secondary : primary, link,
                QRectF(event->rect()).translated(-origin));
}

void TextBlockView::resizeEvent(QResizeEvent *event)
{
    if (event->oldSize().width() != width())
        update();
    else if (height() > event->oldSize().height())
        repaintGrowth(this, event->oldSize().height());
    MarkdownBlockView::resizeEvent(event);
}

void TextBlockView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::FontChange) {
        m_text.setFont(blockFont());
        measurePrefix();
        updateGeometry();
    }
    if (event->type() == QEvent::PaletteChange)
        update();
    MarkdownBlockView::changeEvent(event);
}

std::optional<QString> TextBlockView::linkAt(QPoint pos) const
{
    return m_text.linkAt(QPointF(pos) - QPointF(leadingWidth(), topPadding()));
}

void TextBlockView::mouseMoveEvent(QMouseEvent *event)
{
    const std::optional<QString> link = linkAt(event->position().toPoint());
    const bool openable = link && InlineMarkdown::isOpenableLink(*link);
    setCursor(openable ? Qt::PointingHandCursor : Qt::ArrowCursor);
    setToolTip(link ? linkToolTip(*link) : QString());
    MarkdownBlockView::mouseMoveEvent(event);
}

void TextBlockView::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton) {
        // A model's reply may carry any target: only web and mail links leave the program, and
        // only to the user's own browser or mail client.
        const std::optional<QString> link = linkAt(event->position().toPoint());
        if (link && InlineMarkdown::isOpenableLink(*link)) {
            QDesktopServices::openUrl(QUrl(*link));
            event->accept();
            return;
        }
    }
    MarkdownBlockView::mouseReleaseEvent(event);
}

FindMarks findMarks(const QList<FindHit> &hits)
{
    FindMarks marks;
    for (const FindHit &hit : hits) {
        if (hit.current) {
            marks.current = int(marks.ranges.size());
            marks.currentRange = hit.range;
        }
        marks.ranges.append(hit.range);
    }
    return marks;
}

void TextBlockView::setFindHits(const QList<FindHit> &hits)
{
    const FindMarks marks = findMarks(hits);
    m_currentHit = marks.currentRange;
    if (m_text.setHighlights(marks.ranges, marks.current))
        update();
}

QRect TextBlockView::currentHitRect() const
{
    if (!m_currentHit)
        return {};
    m_text.heightForWidth(width() - leadingWidth());
    const QRectF rect = m_text.rangeRect(*m_currentHit);
    return rect.isEmpty() ? QRect() : rect.translated(leadingWidth(), topPadding()).toAlignedRect();
}

MarkdownTextView::MarkdownTextView(QWidget *parent)
    : QWidget(parent)
{
    setAttribute(Qt::WA_StaticContents);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
}

MarkdownBlockView *MarkdownTextView::makeView(const MarkdownText::Block &block, QWidget *parent) const
{
    MarkdownBlockView *view = nullptr;
    switch (block.kind) {
    case Kind::Code:
        view = new CodeBlockView(block.code, block.language, parent);
        break;
    case Kind::Table:
        view = new TableBlockView(block.headers, block.rows, parent);
        break;
    default:
        view = new TextBlockView(block, parent);
        break;
    }
    view->setBackdrop(m_backdrop);
    return view;
}

void MarkdownTextView::setBackdrop(const QColor &color)
{
    if (color == m_backdrop)
        return;
    m_backdrop = color;
    for (MarkdownBlockView *view : std::as_const(m_views))
        view->setBackdrop(color);
}

void MarkdownTextView::setFindHits(const QHash<int, QList<FindHit>> &hitsByBlock)
{
    for (qsizetype k = 0; k < m_views.size(); ++k)
        m_views.at(k)->setFindHits(hitsByBlock.value(int(k)));
}

bool MarkdownTextView::setText(const QString &text)
{
    if (text == m_text && !text.isNull())
        return false;
    // A streamed reply only grows, and each of its prefixes is drawn once: keeping them in the
    // process-wide cache would fill it with texts nobody asks for again.
    const bool grew = !m_text.isEmpty() && text.startsWith(m_text);
    m_text = text.isNull() ? QLatin1String("") : text;
    // Only the blocks past the point a growing text is parsed again from can differ; the rest of
    // the old list is let go first, so that the parse it shares grows in place instead of being
    // copied whole on every update.
    const qsizetype resumeBlocks = resumesParse(m_text, grew) ? std::min(m_resume.blocks, m_blocks.size()) : 0;
    const QList<MarkdownText::Block> oldTail = m_blocks.mid(resumeBlocks);
    m_blocks.clear();
    qsizetype reused = 0;
    const QList<MarkdownText::Block> blocks = blocksFor(m_text, grew, &reused);
    qsizetype firstChanged = blocks.size();
    const qsizetype oldCount = resumeBlocks + oldTail.size();
    // Blocks that came whole from the last parse are the ones their views show already.
    for (qsizetype k = std::min({reused, m_views.size(), oldCount}); k < blocks.size(); ++k) {
        if (k < m_views.size()) {
            if (k >= resumeBlocks && k < oldCount && oldTail.at(k - resumeBlocks) == blocks.at(k))
                continue;
            firstChanged = std::min(firstChanged, k);
            if (!m_views.at(k)->setBlock(blocks.at(k))) {
                delete m_views.at(k);
                m_views[k] = makeView(blocks.at(k), groupFor(k));
            }
        } else {
            firstChanged = std::min(firstChanged, k);
            m_views.append(makeView(blocks.at(k), groupFor(k)));
        }
    }
    if (m_views.size() > blocks.size()) {
        firstChanged = std::min(firstChanged, blocks.size());
        qDeleteAll(m_views.begin() + blocks.size(), m_views.end());
        m_views.resize(blocks.size());
        const qsizetype groups = (m_views.size() + groupSize - 1) / groupSize;
        qDeleteAll(m_groups.begin() + groups, m_groups.end());
        m_groups.resize(groups);
    }
    m_blocks = blocks;
    m_heights.resize(m_views.size());
    m_heightsValid = std::min(m_heightsValid, firstChanged);
    layOutBlocks(firstChanged);
    return true;
}

qsizetype MarkdownTextView::layoutCost(const MarkdownText::Block &block)
{
    const auto text = [](const QString &s) { return std::min(s.size(), InlineText::shownLimit) + cellCost; };
    switch (block.kind) {
    case Kind::Code:
        // Laid out a line at a time as it comes into view.
        return cellCost;
    case Kind::Table: {
        qsizetype cost = 0;
        for (const QString &cell : block.headers)
            cost += text(cell);
        const qsizetype rows = std::min<qsizetype>(block.rows.size(), TableBlockView::shownRows(block.headers.size()));
        for (qsizetype r = 0; r < rows; ++r) {
            for (qsizetype c = 0; c < std::min(block.rows.at(r).size(), block.headers.size()); ++c)
                cost += text(block.rows.at(r).at(c));
        }
        return cost;
    }
    default:
        return text(block.text);
    }
}

bool MarkdownTextView::resumesParse(const QString &text, bool grew) const
{
    // A streamed reply parses again only from the last place where what follows cannot change
    // what came before: a long reply would otherwise be parsed whole on every update.
    return grew && text.size() <= parseLimit && m_resume.offset > 0 && m_resume.blocks <= m_parsed.size();
}

QList<MarkdownText::Block> MarkdownTextView::blocksFor(const QString &text, bool grew, qsizetype *reused)
{
    *reused = 0;
    if (text.size() > parseLimit || !grew) {
        m_parsed.clear();
        m_resume = {};
        return shownBlocks(text, grew);
    }
    MarkdownText::ResumePoint tail;
    if (resumesParse(text, grew)) {
        m_parsed.resize(m_resume.blocks);
        m_parsed += MarkdownText::parse(QStringView(text).sliced(m_resume.offset), &tail);
        *reused = m_resume.blocks;
        m_resume = {m_resume.offset + tail.offset, m_resume.blocks + tail.blocks};
    } else {
        m_parsed = MarkdownText::parse(text, &m_resume);
    }
    return withinBudget(m_parsed, false);
}

QList<MarkdownText::Block> MarkdownTextView::withinBudget(QList<MarkdownText::Block> blocks, bool cut)
{
    // Past the budget the message is not laid out at all: what is shown then stays quick to open,
    // to resize and to scroll, however long the message.
    qsizetype spent = 0;
    for (qsizetype k = 0; k < blocks.size(); ++k) {
        spent += layoutCost(blocks.at(k));
        if (spent > layoutBudget && k > 0) {
            blocks.resize(k);
            cut = true;
            break;
        }
    }
    if (cut) {
        blocks.append(MarkdownText::Block::paragraph(
            QLatin1Char('*') +
            tr("The rest of this message is too long to show here; copying the message takes all of it.") +
            QLatin1Char('*')));
    }
    return blocks;
}

QList<MarkdownText::Block> MarkdownTextView::shownBlocks(const QString &text, bool grew)
{
    bool cut = text.size() > parseLimit;
    QList<MarkdownText::Block> blocks;
    if (cut) {
        const qsizetype end = parseLimit - (text.at(parseLimit - 1).isHighSurrogate() ? 1 : 0);
        blocks = MarkdownText::parse(QStringView(text).first(end));
    } else {
        blocks = grew ? MarkdownText::parse(text) : MarkdownText::cachedParse(text);
    }
    return withinBudget(std::move(blocks), cut);
}

int MarkdownTextView::heightForWidth(int width) const
{
    if (width != m_heightsWidth) {
        m_heightsWidth = width;
        m_heightsValid = 0;
    }
    // Blocks before the first changed one keep their measured heights.
    for (qsizetype k = m_heightsValid; k < m_views.size(); ++k) {
        m_heights[k] = m_views.at(k)->heightForWidth(width);
    }
    m_heightsValid = m_views.size();
    int height = 0;
    for (int h : m_heights)
        height += h;
    if (!m_views.isEmpty())
        height += blockSpacing * int(m_views.size() - 1);
    return height;
}

void MarkdownTextView::invalidateHeights()
{
    m_heightsValid = 0;
}

QSize MarkdownTextView::sizeHint() const
{
    const int w = idealWidth() < 0 ? 400 : idealWidth();
    return {w, heightForWidth(w)};
}

int MarkdownTextView::idealWidth() const
{
    int widest = 0;
    for (const MarkdownBlockView *view : m_views) {
        if (view->fillsWidth())
            return -1;
        widest = std::max(widest, view->idealWidth());
    }
    return widest;
}

void MarkdownTextView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    // A change of height alone comes from the blocks themselves, which placed what moved.
    if (event->oldSize().width() != width() || !m_blocksPlaced)
        layOutBlocks(0);
}

void MarkdownTextView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::FontChange)
        invalidateHeights();
    QWidget::changeEvent(event);
}

void MarkdownTextView::showPlaced(QWidget *view)
{
    // Blocks and runs are shown once layOutBlocks has placed them. Shown unsized, Qt would size one
    // by its hint, laying a long paragraph out twice more (unwrapped and at that width) for nothing;
    // shown before it is placed, it would repaint whatever lies where it first appears.
    if (!view->isHidden())
        return;
    view->setAttribute(Qt::WA_Resized);
    view->show();
}

QWidget *MarkdownTextView::groupFor(qsizetype index)
{
    const qsizetype group = index / groupSize;
    while (m_groups.size() <= group) {
        auto *run = new QWidget(this);
        // A run grows downwards with its last block, repainting only what it uncovers.
        run->setAttribute(Qt::WA_StaticContents);
        m_groups.append(run);
    }
    return m_groups.at(group);
}

void MarkdownTextView::placeIfMoved(QWidget *view, const QRect &rect)
{
    // Qt marks the parent's opaque regions dirty on every setGeometry(), moved or not; a stream
    // places the same blocks where they are on each update.
    if (view->geometry() != rect)
        view->setGeometry(rect);
}

void MarkdownTextView::layOutBlocks(qsizetype from)
{
    // Without a width of its own yet there is nothing to place; the first resize places all.
    if (!testAttribute(Qt::WA_Resized))
        return;
    if (!std::exchange(m_blocksPlaced, true))
        from = 0;
    const int w = width();
    heightForWidth(w);
    if (from < 0 || from > m_views.size())
        from = 0;
    // The runs before the first changed block stay where they are; the runs after it move whole,
    // their blocks keeping their places within them.
    const qsizetype firstGroup = std::min(from / groupSize, m_groups.size());
    int y = firstGroup > 0 ? m_groups.at(firstGroup - 1)->geometry().bottom() + 1 + blockSpacing : 0;
    for (qsizetype g = firstGroup; g < m_groups.size(); ++g) {
        const qsizetype end = std::min((g + 1) * groupSize, m_views.size());
        int inner = 0;
        for (qsizetype k = g * groupSize; k < end; ++k) {
            const int h = m_heights.at(k);
            placeIfMoved(m_views.at(k), QRect(0, inner, w, h));
            showPlaced(m_views.at(k));
            inner += h + blockSpacing;
        }
        placeIfMoved(m_groups.at(g), QRect(0, y, w, std::max(0, inner - blockSpacing)));
        showPlaced(m_groups.at(g));
        y += inner;
    }
}

void MarkdownBlockView::scrollSidewaysTo(QScrollArea *scroll, const QRect &target)
{
    if (target.isEmpty())
        return;
    QScrollBar *bar = scroll->horizontalScrollBar();
    const int visible = scroll->viewport()->width();
    // Some of the line around the hit shows with it, so it can be read in context.
    const int margin = std::min(48, visible / 4);
    if (target.left() >= bar->value() + margin && target.right() <= bar->value() + visible - margin)
        return;
    bar->setValue(target.center().x() - visible / 2);
}

void MarkdownBlockView::setUpSidewaysScroll(QScrollArea *scroll, QWidget *content, QObject *filter)
{
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setWidgetResizable(false);
    scroll->setFocusPolicy(Qt::NoFocus);
    scroll->viewport()->setAutoFillBackground(false);
    scroll->setWidget(content);
    scroll->viewport()->installEventFilter(filter);
}
