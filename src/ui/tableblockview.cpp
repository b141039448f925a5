#include "ui/tableblockview.h"

#include "ui/bandedpaint.h"
#include "ui/theme.h"

#include <QDesktopServices>
#include <QEvent>
#include <QHash>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPaintEvent>
#include <QResizeEvent>
#include <QScrollArea>
#include <QScrollBar>
#include <QUrl>
#include <QWheelEvent>

namespace {
constexpr qreal cornerRadius = 6;
constexpr int dividerHeight = 1;
} // namespace

// The whole grid at its natural width, inside the table's sideways scrolling strip.
class TableGridView final : public QWidget
{
public:
    explicit TableGridView(TableBlockView *table)
        : QWidget(nullptr)
        , m_table(table)
    {
        setMouseTracking(true);
        setAutoFillBackground(false);
        // Clicked or tabbed to, the arrow keys scroll the table sideways.
        setFocusPolicy(Qt::StrongFocus);
        setAccessibleName(TableBlockView::tr("Table"));
    }

protected:
    void paintEvent(QPaintEvent *event) override
    {
        QPainter painter(this);
        m_table->paintGrid(&painter, event->rect());
        if (hasFocus()) {
            painter.setRenderHint(QPainter::Antialiasing);
            painter.setPen(QPen(Theme::color(Theme::Color::Accent, palette()), 1.5));
            painter.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), cornerRadius, cornerRadius);
        }
    }
    void focusInEvent(QFocusEvent *event) override
    {
        update();
        QWidget::focusInEvent(event);
    }
    void focusOutEvent(QFocusEvent *event) override
    {
        update();
        QWidget::focusOutEvent(event);
    }
    void mouseMoveEvent(QMouseEvent *event) override
    {
        const std::optional<QString> link = m_table->linkAt(event->position().toPoint());
        setCursor(link && InlineMarkdown::isOpenableLink(*link) ? Qt::PointingHandCursor : Qt::ArrowCursor);
        setToolTip(link ? linkToolTip(*link) : QString());
        QWidget::mouseMoveEvent(event);
    }
    void mouseReleaseEvent(QMouseEvent *event) override
    {
        if (event->button() == Qt::LeftButton) {
            const std::optional<QString> link = m_table->linkAt(event->position().toPoint());
            if (link && InlineMarkdown::isOpenableLink(*link)) {
                QDesktopServices::openUrl(QUrl(*link));
                event->accept();
                return;
            }
        }
        QWidget::mouseReleaseEvent(event);
    }

private:
    TableBlockView *m_table;
};

TableBlockView::TableBlockView(const QStringList &headers, const QList<QStringList> &rows, QWidget *parent)
    : MarkdownBlockView(parent)
    , m_scroll(new QScrollArea(this))
    , m_grid(new TableGridView(this))
{
    setUpSidewaysScroll(m_scroll, m_grid, this);
    m_grid->installEventFilter(this);
    setContent(headers, rows);
}

TableBlockView::~TableBlockView() = default;

QWidget *TableBlockView::grid() const
{
    return m_grid;
}

qsizetype TableBlockView::shownRows(qsizetype columns)
{
    return std::max<qsizetype>(1, maxShownCells / std::max<qsizetype>(1, columns) - 1);
}

bool TableBlockView::setBlock(const MarkdownText::Block &block)
{
    if (block.kind != MarkdownText::Block::Kind::Table)
        return false;
    setContent(block.headers, block.rows);
    return true;
}

void TableBlockView::setContent(const QStringList &headers, const QList<QStringList> &rows)
{
    if (headers == m_headers && rows == m_rows && !m_cells.empty())
        return;
    m_headers = headers;
    m_rows = rows;
    const std::size_t columns = std::size_t(headers.size());
    m_cells.resize(std::size_t(std::min<qsizetype>(rows.size(), shownRows(headers.size()))) + 1);
    QStringList accessible;
    for (std::size_t r = 0; r < m_cells.size(); ++r) {
        auto &cells = m_cells[r];
        cells.resize(columns);
        const QStringList &source = r == 0 ? headers : rows.at(qsizetype(r - 1));
        QStringList shown;
        for (std::size_t c = 0; c < columns; ++c) {
            if (!cells[c])
                cells[c] = std::make_unique<InlineText>();
            // Rows shorter than the header get empty cells; longer rows lose their extra cells.
            cells[c]->setSource(qsizetype(c) < source.size() ? source.at(qsizetype(c)) : QString());
            shown.append(cells[c]->plainText());
        }
        accessible.append(shown.join(QLatin1Char('\t')));
    }
    if (rowCount() < rows.size())
        accessible.append(note());
    setAccessibleName(accessible.join(QLatin1Char('\n')));
    applyFonts();
}

QString TableBlockView::note() const
{
    return tr("… %L1 more rows not shown here; copying the message takes all of them.").arg(m_rows.size() - rowCount());
}

void TableBlockView::applyFonts()
{
    QFont bold = font();
    bold.setBold(true);
    for (std::size_t r = 0; r < m_cells.size(); ++r) {
        for (auto &cell : m_cells[r])
            cell->setFont(r == 0 ? bold : font());
    }
    m_geometry = {};
    const Geometry &g = gridGeometry();
    m_grid->resize(std::max(g.width, m_scroll->viewport()->width()), g.height);
    updateGeometry();
    m_grid->update();
}

QString TableBlockView::cellText(int row, int column) const
{
    return m_cells.at(std::size_t(row)).at(std::size_t(column))->plainText();
}

const TableBlockView::Geometry &TableBlockView::gridGeometry() const
{
    if (m_geometry.valid)
        return m_geometry;
    Geometry g;
    g.valid = true;
    const int n = columnCount();
    g.width = 2 * padding + columnSpacing * std::max(0, n - 1);
    for (int c = 0; c < n; ++c) {
        int widest = 0;
        for (const auto &row : m_cells)
            widest = std::max(widest, row[std::size_t(c)]->idealWidth());
        g.columns.append(std::min(widest, maxColumnWidth));
        g.width += g.columns.last();
    }
    g.height = 2 * padding;
    for (const auto &row : m_cells) {
        int tallest = 0;
        for (int c = 0; c < n; ++c)
            tallest = std::max(tallest, row[std::size_t(c)]->heightForWidth(g.columns.at(c)));
        g.rows.append(tallest);
        g.height += tallest;
    }
    g.height += dividerHeight + rowSpacing * int(m_cells.size());
    if (rowCount() < m_rows.size())
        g.height += QFontMetrics(font()).height() + rowSpacing;
    m_geometry = g;
    return m_geometry;
}

int TableBlockView::idealWidth() const
{
    return gridGeometry().width;
}

int TableBlockView::heightForWidth(int) const
{
    return gridGeometry().height;
}

QSize TableBlockView::sizeHint() const
{
    return {idealWidth(), gridGeometry().height};
}

std::optional<QString> TableBlockView::linkAt(QPoint gridPos) const
{
    const Geometry &g = gridGeometry();
    int y = padding;
    for (std::size_t r = 0; r < m_cells.size(); ++r) {
        const int rowHeight = g.rows.at(qsizetype(r));
        if (gridPos.y() >= y && gridPos.y() < y + rowHeight) {
            int x = padding;
            for (int c = 0; c < columnCount(); ++c) {
                if (gridPos.x() >= x && gridPos.x() < x + g.columns.at(c)) {
                    InlineText &cell = *m_cells[r][std::size_t(c)];
                    const int top = y + (rowHeight - cell.heightForWidth(g.columns.at(c))) / 2;
                    return cell.linkAt(QPointF(gridPos - QPoint(x, top)));
                }
                x += g.columns.at(c) + columnSpacing;
            }
            return std::nullopt;
        }
        y += rowHeight + rowSpacing + (r == 0 ? dividerHeight + rowSpacing : 0);
    }
    return std::nullopt;
}

void TableBlockView::setFindHits(const QList<FindHit> &hits)
{
    const int columns = columnCount();
    QHash<int, QList<TextSearch::Range>> byCell;
    m_currentHitCell = -1;
    int currentInCell = -1;
    for (const FindHit &hit : hits) {
        if (hit.current) {
            m_currentHitCell = hit.cell;
            m_currentHit = hit.range;
            currentInCell = int(byCell.value(hit.cell).size());
        }
        byCell[hit.cell].append(hit.range);
    }
    bool changed = false;
    for (std::size_t r = 0; r < m_cells.size(); ++r) {
        for (int c = 0; c < columns; ++c) {
            const int cell = int(r) * columns + c;
            changed |= m_cells[r][std::size_t(c)]->setHighlights(byCell.value(cell),
                                                                 cell == m_currentHitCell ? currentInCell : -1);
        }
    }
    if (changed)
        m_grid->update();
    if (m_currentHitCell >= 0)
        scrollSidewaysTo(m_scroll, currentHitInGrid());
}

QRect TableBlockView::currentHitInGrid() const
{
    const int columns = columnCount();
    if (m_currentHitCell < 0 || columns == 0)
        return {};
    const std::size_t row = std::size_t(m_currentHitCell / columns);
    const int column = m_currentHitCell % columns;
    if (row >= m_cells.size())
        return {};
    const Geometry &g = gridGeometry();
    int y = padding;
    for (std::size_t r = 0; r < row; ++r)
        y += g.rows.at(qsizetype(r)) + rowSpacing + (r == 0 ? dividerHeight + rowSpacing : 0);
    int x = padding;
    for (int c = 0; c < column; ++c)
        x += g.columns.at(c) + columnSpacing;
    InlineText &cell = *m_cells[row][std::size_t(column)];
    const int top = y + (g.rows.at(qsizetype(row)) - cell.heightForWidth(g.columns.at(column))) / 2;
    const QRectF hit = cell.rangeRect(m_currentHit);
    return hit.isEmpty() ? QRect() : hit.translated(x, top).toAlignedRect();
}

QRect TableBlockView::currentHitRect() const
{
    const QRect hit = currentHitInGrid();
    return hit.isEmpty() ? QRect() : QRect(m_grid->mapTo(this, hit.topLeft()), hit.size());
}

void TableBlockView::paintGrid(QPainter *painter, const QRect &clip) const
{
    const Geometry &g = gridGeometry();
    painter->setRenderHint(QPainter::Antialiasing);
    const QColor secondary = Theme::color(Theme::Color::Secondary, palette());
    BandedPaint::fillRoundedRect(*painter, QRect(0, 0, g.width, g.height), cornerRadius,
                                 Theme::withOpacity(secondary, 0.08));
    painter->setRenderHint(QPainter::Antialiasing, false);

    const QColor text = Theme::color(Theme::Color::Primary, palette());
    const QColor link = palette().color(QPalette::Link);
    int y = padding;
    for (std::size_t r = 0; r < m_cells.size(); ++r) {
        const int rowHeight = g.rows.at(qsizetype(r));
        if (y <= clip.bottom() && y + rowHeight >= clip.top()) {
            int x = padding;
            for (int c = 0; c < columnCount() && x <= clip.right(); ++c) {
                const int columnWidth = g.columns.at(c);
                if (x + columnWidth >= clip.left()) {
                    InlineText &cell = *m_cells[r][std::size_t(c)];
                    const int cellHeight = cell.heightForWidth(columnWidth);
                    cell.draw(painter, QPointF(x, y + (rowHeight - cellHeight) / 2), text, link);
                }
                x += columnWidth + columnSpacing;
            }
        }
        y += rowHeight + rowSpacing;
        if (r == 0) {
            painter->fillRect(QRect(padding, y, g.width - 2 * padding, dividerHeight),
                              Theme::withOpacity(secondary, 0.5));
            y += dividerHeight + rowSpacing;
        }
    }
    if (rowCount() < m_rows.size()) {
        QFont italic = font();
        italic.setItalic(true);
        painter->setFont(italic);
        painter->setPen(secondary);
        painter->drawText(QPointF(padding, y + QFontMetrics(italic).ascent()), note());
    }
}

void TableBlockView::resizeEvent(QResizeEvent *event)
{
    MarkdownBlockView::resizeEvent(event);
    m_scroll->setGeometry(rect());
    m_grid->resize(std::max(gridGeometry().width, width()), gridGeometry().height);
}

bool TableBlockView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_scroll->viewport() && event->type() == QEvent::Wheel &&
        passVerticalWheel(this, static_cast<QWheelEvent *>(event)))
        return true;
    if (watched == m_grid && event->type() == QEvent::KeyPress) {
        // The arrow keys move the strip sideways; the rest is the transcript's.
        auto *key = static_cast<QKeyEvent *>(event);
        QScrollBar *bar = m_scroll->horizontalScrollBar();
        switch (key->key()) {
        case Qt::Key_Left:
            bar->triggerAction(QAbstractSlider::SliderSingleStepSub);
            return true;
        case Qt::Key_Right:
            bar->triggerAction(QAbstractSlider::SliderSingleStepAdd);
            return true;
        case Qt::Key_Home:
            bar->triggerAction(QAbstractSlider::SliderToMinimum);
            return true;
        case Qt::Key_End:
            bar->triggerAction(QAbstractSlider::SliderToMaximum);
            return true;
        default:
            break;
        }
    }
    return MarkdownBlockView::eventFilter(watched, event);
}

void TableBlockView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::FontChange)
        applyFonts();
    if (event->type() == QEvent::PaletteChange)
        m_grid->update();
    MarkdownBlockView::changeEvent(event);
}
