#include "ui/theme.h"

#include <QApplication>
#include <QFile>
#include <QFontDatabase>
#include <QHash>
#include <QIconEngine>
#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>
#include <QToolButton>

#include <cmath>
#include <variant>

namespace Theme {
namespace {

struct Symbol
{
    QLatin1StringView name;
    QLatin1StringView freedesktop;
};

// Every symbol the windows name, with the freedesktop icon that means the same. Our own SVG of
// each lives under :/icons/<symbol>.svg for desktops whose theme lacks the icon.
constexpr Symbol symbols[] = {
    {QLatin1StringView("doc.on.doc"), QLatin1StringView("edit-copy")},
    {QLatin1StringView("checkmark"), QLatin1StringView("checkmark")},
    {QLatin1StringView("pencil"), QLatin1StringView("document-edit")},
    {QLatin1StringView("trash"), QLatin1StringView("edit-delete")},
    {QLatin1StringView("square.and.pencil"), QLatin1StringView("document-new")},
    {QLatin1StringView("key.horizontal"), QLatin1StringView("dialog-password")},
    {QLatin1StringView("square.and.arrow.up"), QLatin1StringView("document-export")},
    {QLatin1StringView("gearshape"), QLatin1StringView("preferences-system")},
    {QLatin1StringView("chevron.down"), QLatin1StringView("go-down")},
    {QLatin1StringView("arrow.clockwise"), QLatin1StringView("view-refresh")},
    {QLatin1StringView("arrow.down"), QLatin1StringView("go-bottom")},
    {QLatin1StringView("stop.fill"), QLatin1StringView("process-stop")},
    {QLatin1StringView("arrow.up.circle.fill"), QLatin1StringView("go-up")},
    {QLatin1StringView("checkmark.circle.fill"), QLatin1StringView("emblem-ok")},
    {QLatin1StringView("exclamationmark.triangle.fill"), QLatin1StringView("dialog-warning")},
    {QLatin1StringView("plus"), QLatin1StringView("list-add")},
    {QLatin1StringView("minus"), QLatin1StringView("list-remove")},
    {QLatin1StringView("magnifyingglass"), QLatin1StringView("edit-find")},
    {QLatin1StringView("chevron.up"), QLatin1StringView("go-up")},
    {QLatin1StringView("xmark"), QLatin1StringView("window-close")},
};

const Symbol *findSymbol(QLatin1StringView name)
{
    for (const Symbol &symbol : symbols) {
        if (symbol.name == name)
            return &symbol;
    }
    return nullptr;
}

using Tint = std::variant<Color, QColor>;

// Draws one of our symbols as a silhouette in the tint: the SVG gives the shape, the colour
// is applied afterwards so one drawing serves every colour and appearance.
class SymbolIconEngine final : public QIconEngine
{
public:
    SymbolIconEngine(QLatin1StringView symbol, Tint tint)
        : m_symbol(symbol)
        , m_tint(std::move(tint))
    {}

    void paint(QPainter *painter, const QRect &rect, QIcon::Mode mode, QIcon::State) override
    {
        const qreal scale = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
        painter->drawImage(rect, render(rect.size(), scale, mode));
    }

    QPixmap pixmap(const QSize &size, QIcon::Mode mode, QIcon::State) override
    {
        return QPixmap::fromImage(render(size, 1.0, mode));
    }

    QPixmap scaledPixmap(const QSize &size, QIcon::Mode mode, QIcon::State, qreal scale) override
    {
        QPixmap pixmap = QPixmap::fromImage(render(size, scale, mode));
        pixmap.setDevicePixelRatio(scale);
        return pixmap;
    }

    QSize actualSize(const QSize &size, QIcon::Mode, QIcon::State) override { return size; }
    QIconEngine *clone() const override { return new SymbolIconEngine(m_symbol, m_tint); }
    QString key() const override { return QStringLiteral("VerboltSymbol"); }

private:
    QColor tintColor(QIcon::Mode mode) const
    {
        QColor c = std::holds_alternative<QColor>(m_tint) ? std::get<QColor>(m_tint) : color(std::get<Color>(m_tint));
        if (mode == QIcon::Disabled)
            c = withOpacity(c, 0.4);
        return c;
    }

    QImage render(const QSize &size, qreal scale, QIcon::Mode mode) const
    {
        const QSize pixels(std::max(1, qRound(size.width() * scale)), std::max(1, qRound(size.height() * scale)));
        const QColor tint = tintColor(mode);
        // Every message carries a row of these buttons, and each paint of one would parse its
        // drawing again: a transcript switching versions repaints dozens at once. The same symbol
        // at the same size and colour is drawn once per run. Widgets paint on the main thread only.
        static QHash<QString, QImage> drawn;
        const QString key =
            QStringLiteral("%1/%2x%3/%4").arg(m_symbol).arg(pixels.width()).arg(pixels.height()).arg(tint.rgba());
        if (const auto it = drawn.constFind(key); it != drawn.cend())
            return *it;
        if (drawn.size() >= 512)
            drawn.clear(); // sizes and palettes come and go; the drawings in use come back at once
        QImage image(pixels, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        const int side = std::min(pixels.width(), pixels.height());
        const QRectF square((pixels.width() - side) / 2.0, (pixels.height() - side) / 2.0, side, side);

        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        const QString path = QStringLiteral(":/icons/") + QString(m_symbol) + QStringLiteral(".svg");
        QSvgRenderer renderer;
        if (QFile::exists(path) && renderer.load(path)) {
            renderer.render(&painter, square);
        } else {
            // Something the user can see and click, even for a name we have no drawing of.
            painter.setPen(Qt::NoPen);
            painter.setBrush(Qt::black);
            painter.drawEllipse(square.adjusted(side * 0.25, side * 0.25, -side * 0.25, -side * 0.25));
        }
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(image.rect(), tint);
        painter.end();
        image.setDevicePixelRatio(1.0);
        drawn.insert(key, image);
        return image;
    }

    QLatin1StringView m_symbol;
    Tint m_tint;
};

qreal basePixelSize()
{
    const QFont base = QApplication::font();
    if (base.pixelSize() > 0)
        return base.pixelSize();
    // Points to pixels at the desktop's logical 96 dpi, which is what Qt lays out in.
    return base.pointSizeF() > 0 ? base.pointSizeF() * 96.0 / 72.0 : 13.0;
}

// Light and dark variants of the system colours.
QColor systemColor(Color c, bool dark)
{
    switch (c) {
    case Color::Pink:
        return dark ? QColor(255, 55, 95) : QColor(255, 45, 85);
    case Color::Purple:
        return dark ? QColor(191, 90, 242) : QColor(175, 82, 222);
    case Color::Orange:
        return dark ? QColor(255, 159, 10) : QColor(255, 149, 0);
    case Color::Red:
        return dark ? QColor(255, 69, 58) : QColor(255, 59, 48);
    case Color::Grey:
        return dark ? QColor(152, 152, 157) : QColor(142, 142, 147);
    case Color::Green:
        return dark ? QColor(48, 209, 88) : QColor(40, 167, 69);
    default:
        return {};
    }
}

} // namespace

QFont font(TextStyle style)
{
    // The desktop ramp, as ratios of a 13-unit body text.
    const qreal body = basePixelSize();
    switch (style) {
    case TextStyle::Body:
        return systemFont(body);
    case TextStyle::Callout:
        return systemFont(body * 12.0 / 13.0);
    case TextStyle::Subheadline:
        return systemFont(body * 11.0 / 13.0);
    case TextStyle::Caption:
        return systemFont(body * 10.0 / 13.0);
    case TextStyle::Caption2:
        return systemFont(body * 10.0 / 13.0, QFont::Medium);
    case TextStyle::Headline:
        return systemFont(body, QFont::Bold);
    case TextStyle::Title2:
        return systemFont(body * 17.0 / 13.0);
    case TextStyle::LargeTitle:
        return systemFont(body * 26.0 / 13.0);
    }
    return systemFont(body);
}

QFont systemFont(qreal pixelSize, QFont::Weight weight)
{
    QFont f = QApplication::font();
    // Pixel sizes are whole numbers in QFont; round so that small captions do not collapse.
    f.setPixelSize(std::max(1, static_cast<int>(std::lround(pixelSize))));
    f.setWeight(weight);
    return f;
}

QFont monospaceFont(TextStyle style)
{
    QFont f = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    f.setPixelSize(font(style).pixelSize());
    return f;
}

bool isDark(const QPalette &palette)
{
    return palette.color(QPalette::Window).lightnessF() < 0.5;
}

QColor color(Color c, const QPalette &palette)
{
    switch (c) {
    case Color::Primary:
        return palette.color(QPalette::WindowText);
    case Color::Secondary:
        return palette.color(QPalette::PlaceholderText);
    case Color::Accent:
        return palette.color(QPalette::Highlight);
    case Color::TextBackground:
        return palette.color(QPalette::Base);
    default:
        return systemColor(c, isDark(palette));
    }
}

QColor color(Color c)
{
    return color(c, QApplication::palette());
}

QColor withOpacity(QColor c, qreal opacity)
{
    c.setAlphaF(std::clamp(c.alphaF() * opacity, 0.0, 1.0));
    return c;
}

QString themeIconName(QLatin1StringView symbol)
{
    const Symbol *found = findSymbol(symbol);
    return found ? QString(found->freedesktop) : QString();
}

bool hasSymbol(QLatin1StringView symbol)
{
    return findSymbol(symbol) != nullptr;
}

// True when the desktop names an icon theme of its own. Without one, Qt falls back to "hicolor",
// which holds programs' icons rather than actions, and searching it for each symbol costs several
// milliseconds of start-up for nothing.
static bool desktopHasIconTheme()
{
    const QString name = QIcon::themeName();
    return !name.isEmpty() && name != QLatin1StringView("hicolor");
}

QIcon symbolIcon(QLatin1StringView symbol, Color tint)
{
    const QString themeName = themeIconName(symbol);
    if (!themeName.isEmpty() && desktopHasIconTheme() && QIcon::hasThemeIcon(themeName))
        return QIcon::fromTheme(themeName);
    return QIcon(new SymbolIconEngine(symbol, tint));
}

QIcon symbolIcon(QLatin1StringView symbol, const QColor &tint)
{
    return QIcon(new SymbolIconEngine(symbol, tint));
}

QToolButton *symbolButton(QLatin1StringView symbol, const QString &help, const QString &objectName, QWidget *parent)
{
    auto *button = new QToolButton(parent);
    button->setObjectName(objectName);
    button->setIcon(symbolIcon(symbol));
    button->setIconSize(QSize(16, 16));
    button->setAutoRaise(true);
    button->setToolTip(help);
    button->setAccessibleName(help);
    button->setFocusPolicy(Qt::StrongFocus);
    return button;
}

QTextLayout::FormatRange findHighlight(qsizetype start, qsizetype length, bool current)
{
    QTextCharFormat format;
    const bool dark = isDark(QApplication::palette());
    const QColor yellow(0xff, 0xd6, 0x0a);
    format.setBackground(current ? color(Color::Orange) : withOpacity(yellow, dark ? 0.45 : 0.6));
    // Dark text on the strong orange in both palettes; on the light tint only where the page is light.
    if (current || !dark)
        format.setForeground(QColor(Qt::black));
    return {int(start), int(length), format};
}

void setTextColour(QWidget *widget, const QColor &colour)
{
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, colour);
    widget->setPalette(palette);
}

} // namespace Theme
