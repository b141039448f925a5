#include "ui/tableblockview.h"

#include "ui/theme.h"

#include <QEvent>
#include <QPainter>
#include <QPainterPath>

namespace {
constexpr qreal cornerRadius = 6;
constexpr int dividerHeight = 1;
} // namespace

TableBlockView::TableBlockView(const QStringList &headers, const QList<QStringList> &rows, QWidget *parent)
    : MarkdownBlockView(parent)
{
    setContent(headers, rows);
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
    m_cells.resize(std::size_t(rows.size()) + 1);
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
    setAccessibleName(accessible.join(QLatin1Char('\n')));
    applyFonts();
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
    updateGeometry();
    update();
}

QString TableBlockView::cellText(int row, int column) const
{
    return m_cells.at(std::size_t(row)).at(std::size_t(column))->plainText();
}

int TableBlockView::idealWidth() const
{
    int width = 2 * padding + columnSpacing * std::max(0, columnCount() - 1);
    for (int c = 0; c < columnCount(); ++c) {
        int widest = 0;
        for (const auto &row : m_cells)
            widest = std::max(widest, row[std::size_t(c)]->idealWidth());
        width += widest;
    }
    return width;
}

const TableBlockView::Geometry &TableBlockView::geometryFor(int width) const
{
    if (m_geometry.width == width)
        return m_geometry;
    Geometry g;
    g.width = width;
    const int n = columnCount();
    int natural = 0;
    for (int c = 0; c < n; ++c) {
        int widest = 0;
        for (const auto &row : m_cells)
            widest = std::max(widest, row[std::size_t(c)]->idealWidth());
        g.columns.append(widest);
        natural += widest;
    }
    const int available = width - 2 * padding - columnSpacing * std::max(0, n - 1);
    if (natural > available && available > 0) {
        // Too wide for the message: columns share the room by their natural widths and wrap.
        for (int &column : g.columns)
            column = std::max(1, int(qint64(column) * available / natural));
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
    m_geometry = g;
    return m_geometry;
}

int TableBlockView::heightForWidth(int width) const
{
    return geometryFor(width).height;
}

QSize TableBlockView::sizeHint() const
{
    const int w = idealWidth();
    return {w, heightForWidth(w)};
}

void TableBlockView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor secondary = Theme::color(Theme::Color::Secondary, palette());
    const int tableWidth = std::min(width(), idealWidth());
    QPainterPath path;
    path.addRoundedRect(QRectF(0, 0, tableWidth, height()), cornerRadius, cornerRadius);
    painter.fillPath(path, Theme::withOpacity(secondary, 0.08));
    painter.setRenderHint(QPainter::Antialiasing, false);

    const Geometry &g = geometryFor(width());
    const QColor text = Theme::color(Theme::Color::Primary, palette());
    const QColor link = palette().color(QPalette::Link);
    int y = padding;
    for (std::size_t r = 0; r < m_cells.size(); ++r) {
        const int rowHeight = g.rows.at(qsizetype(r));
        int x = padding;
        for (int c = 0; c < columnCount(); ++c) {
            InlineText &cell = *m_cells[r][std::size_t(c)];
            const int cellHeight = cell.heightForWidth(g.columns.at(c));
            cell.draw(&painter, QPointF(x, y + (rowHeight - cellHeight) / 2), text, link);
            x += g.columns.at(c) + columnSpacing;
        }
        y += rowHeight + rowSpacing;
        if (r == 0) {
            painter.fillRect(QRect(padding, y, tableWidth - 2 * padding, dividerHeight),
                             Theme::withOpacity(secondary, 0.5));
            y += dividerHeight + rowSpacing;
        }
    }
}

void TableBlockView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::FontChange)
        applyFonts();
    if (event->type() == QEvent::PaletteChange)
        update();
    MarkdownBlockView::changeEvent(event);
}
