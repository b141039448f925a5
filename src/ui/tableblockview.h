#pragma once

#include "ui/inlinetext.h"
#include "ui/markdowntextview.h"

#include <QStringList>

#include <memory>
#include <vector>

// A Markdown table as a painted grid: a bold header row, a divider, then one row per body row
// with exactly as many cells as there are headers (missing cells empty, extra ones dropped).
// Each column is as wide as its widest cell; when the table is offered less, the columns share
// what there is and their cells wrap.
class TableBlockView final : public MarkdownBlockView
{
    Q_OBJECT

public:
    TableBlockView(const QStringList &headers, const QList<QStringList> &rows, QWidget *parent = nullptr);

    bool setBlock(const MarkdownText::Block &block) override;
    int heightForWidth(int width) const override;
    int idealWidth() const override;
    bool fillsWidth() const override { return false; }
    QSize sizeHint() const override;

    int columnCount() const { return int(m_headers.size()); }
    int rowCount() const { return int(m_cells.size()) - 1; }
    // The shown text of a cell; row 0 is the header row.
    QString cellText(int row, int column) const;

    static constexpr int padding = 8;
    static constexpr int columnSpacing = 14;
    static constexpr int rowSpacing = 6;

protected:
    void paintEvent(QPaintEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    struct Geometry
    {
        int width = -1;
        QList<int> columns;
        QList<int> rows;
        int height = 0;
    };
    void setContent(const QStringList &headers, const QList<QStringList> &rows);
    const Geometry &geometryFor(int width) const;
    void applyFonts();

    QStringList m_headers;
    QList<QStringList> m_rows;
    // Row 0 holds the headers; every row has one cell per header.
    std::vector<std::vector<std::unique_ptr<InlineText>>> m_cells;
    mutable Geometry m_geometry;
};
