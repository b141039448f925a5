#pragma once

#include "ui/inlinetext.h"
#include "ui/markdowntextview.h"

#include <QStringList>

#include <memory>
#include <vector>

class QScrollArea;
class TableGridView;

// A Markdown table as a painted grid: a bold header row, a divider, then one row per body row
// with exactly as many cells as there are headers (missing cells empty, extra ones dropped).
// Each column is as wide as its widest cell, up to maxColumnWidth, past which its cells wrap.
// A table wider than the message scrolls sideways inside its block, like code, by wheel,
// touchpad and the arrow keys; the message never widens. A link's tooltip shows its whole
// address. Past maxShownCells cells, further rows are left out with a note.
class TableBlockView final : public MarkdownBlockView
{
    Q_OBJECT

public:
    TableBlockView(const QStringList &headers, const QList<QStringList> &rows, QWidget *parent = nullptr);
    ~TableBlockView() override;

    bool setBlock(const MarkdownText::Block &block) override;
    int heightForWidth(int width) const override;
    int idealWidth() const override;
    bool fillsWidth() const override { return false; }
    QSize sizeHint() const override;
    void setFindHits(const QList<FindHit> &hits) override;
    QRect currentHitRect() const override;

    int columnCount() const { return int(m_headers.size()); }
    // Body rows shown.
    int rowCount() const { return int(m_cells.size()) - 1; }
    // The shown text of a cell; row 0 is the header row.
    QString cellText(int row, int column) const;
    // The link under a point of the grid, if any.
    std::optional<QString> linkAt(QPoint gridPos) const;
    QScrollArea *scrollArea() const { return m_scroll; }
    QWidget *grid() const;

    // How many body rows a table of this many columns shows.
    static qsizetype shownRows(qsizetype columns);

    static constexpr int padding = 8;
    static constexpr int columnSpacing = 14;
    static constexpr int rowSpacing = 6;
    static constexpr int maxColumnWidth = 480;
    static constexpr qsizetype maxShownCells = 20000;

protected:
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    friend class TableGridView;
    struct Geometry
    {
        bool valid = false;
        QList<int> columns;
        QList<int> rows;
        int width = 0;
        int height = 0;
    };
    void setContent(const QStringList &headers, const QList<QStringList> &rows);
    const Geometry &gridGeometry() const;
    void applyFonts();
    void paintGrid(QPainter *painter, const QRect &clip) const;
    QString note() const;
    // Where the current hit is drawn in the grid's coordinates; empty without one.
    QRect currentHitInGrid() const;

    QStringList m_headers;
    QList<QStringList> m_rows;
    // Row 0 holds the headers; every row has one cell per header.
    std::vector<std::vector<std::unique_ptr<InlineText>>> m_cells;
    mutable Geometry m_geometry;
    QScrollArea *m_scroll;
    TableGridView *m_grid;
    int m_currentHitCell = -1; // row * columnCount() + column
    TextSearch::Range m_currentHit;
};
