#include "ui/aboutdialog.h"

#include "ui/theme.h"
#include "verboltversion.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QEvent>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

QLabel *line(const QString &text, Theme::TextStyle style, const QString &objectName, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setObjectName(objectName);
    label->setTextFormat(Qt::PlainText);
    label->setFont(Theme::font(style));
    label->setAlignment(Qt::AlignHCenter);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    label->setAccessibleName(text);
    return label;
}

} // namespace

AboutDialog::AboutDialog(QWidget *parent)
    : QDialog(parent)
{
    setObjectName(u"aboutWindow"_s);
    setWindowTitle(u"About Verbolt"_s);
    setAccessibleName(windowTitle());

    auto *icon = new QLabel(this);
    icon->setObjectName(u"aboutIcon"_s);
    icon->setAlignment(Qt::AlignHCenter);
    icon->setPixmap(QApplication::windowIcon().pixmap(64, 64));
    icon->setAccessibleName(u"Verbolt icon"_s);
    // Without the program's icon (a test, a tool) the window starts with its name.
    icon->setVisible(!QApplication::windowIcon().isNull());

    auto *name = line(u"Verbolt"_s, Theme::TextStyle::LargeTitle, u"aboutName"_s, this);
    m_summary = line(u"Chat with language-model services using your own API keys."_s, Theme::TextStyle::Callout,
                     u"aboutSummary"_s, this);
    auto *version = line(versionLine(), Theme::TextStyle::Body, u"aboutVersion"_s, this);
    auto *qt = line(qtLine(), Theme::TextStyle::Body, u"aboutQt"_s, this);
    auto *licence = line(licenceLine(), Theme::TextStyle::Body, u"aboutLicence"_s, this);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    buttons->button(QDialogButtonBox::Close)->setAccessibleName(u"Close"_s);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(28, 24, 28, 16);
    layout->setSpacing(6);
    layout->addWidget(icon);
    layout->addWidget(name);
    layout->addWidget(m_summary);
    layout->addSpacing(10);
    layout->addWidget(version);
    layout->addWidget(qt);
    layout->addWidget(licence);
    layout->addSpacing(12);
    layout->addWidget(buttons);
    // As tall as its lines at this width, never taller: extra height would only spread them apart.
    setFixedWidth(400);
    setFixedHeight(layout->totalHeightForWidth(400));
    applyColours();
}

QString AboutDialog::versionLine()
{
    return u"Version %1, released %2"_s.arg(QLatin1StringView(Verbolt::version),
                                            QLatin1StringView(Verbolt::releaseDate));
}

QString AboutDialog::qtLine()
{
    const QString running = QString::fromLatin1(qVersion());
    const QString built = QStringLiteral(QT_VERSION_STR);
    // A program built on one Qt may run on a newer one; a bug report needs both.
    if (running == built)
        return u"Qt %1"_s.arg(running);
    return u"Qt %1 (built with %2)"_s.arg(running, built);
}

QString AboutDialog::licenceLine()
{
    return u"Licence: %1"_s.arg(QLatin1StringView(Verbolt::licence));
}

void AboutDialog::changeEvent(QEvent *event)
{
    QDialog::changeEvent(event);
    if (event->type() == QEvent::PaletteChange)
        applyColours();
}

void AboutDialog::applyColours()
{
    QPalette secondary = m_summary->palette();
    secondary.setColor(QPalette::WindowText, Theme::color(Theme::Color::Secondary, palette()));
    m_summary->setPalette(secondary);
}
