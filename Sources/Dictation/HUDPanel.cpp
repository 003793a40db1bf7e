#include "HUDPanel.h"

#include "Shared/Logging.h"
#include "UI/SystemFont.h"

#include <QApplication>
#include <QCursor>
#include <QFontMetrics>
#include <QLabel>
#include <QPainterPath>
#include <QRegion>
#include <QRegularExpression>
#include <QScreen>
#include <QTextBoundaryFinder>
#include <QVBoxLayout>

namespace {

constexpr int cornerRadius = 12;
constexpr int horizontalInset = 16;
constexpr int verticalInset = 10;
constexpr int lineSpacing = 4;
constexpr int textWidth = HUDPanel::width - 2 * horizontalInset;
const QChar ellipsis(0x2026);
const QChar zeroWidthSpace(0x200B);
// An error longer than this many lines (a whisper-cli line can be kilobytes) keeps its beginning;
// the panel must stay on the screen.
constexpr int maximumStatusLines = 6;

// Measured the way the label lays its text out, so what fits here fits there.
int wrappedHeight(const QString& text, const QFontMetrics& metrics)
{
    return metrics.boundingRect(QRect(0, 0, textWidth, 1 << 20), Qt::TextWordWrap | Qt::AlignHCenter, text).height();
}

bool fitsInLines(const QString& text, const QFontMetrics& metrics, int lines)
{
    return wrappedHeight(text, metrics) <= wrappedHeight(QStringList(lines, QStringLiteral("x")).join(u'\n'), metrics);
}

// Word wrap breaks only between words, so a long path in an error would still run past the panel's
// edges; a zero-width space between the characters of a word wider than a line lets it break there.
QString breakableAnywhere(const QString& text, const QFontMetrics& metrics)
{
    static const QRegularExpression word(QStringLiteral("\\S+"));
    QString result;
    qsizetype copied = 0;
    for (QRegularExpressionMatchIterator words = word.globalMatch(text); words.hasNext();) {
        const QRegularExpressionMatch match = words.next();
        if (metrics.horizontalAdvance(match.captured()) <= textWidth)
            continue;
        result += text.mid(copied, match.capturedStart() - copied);
        QTextBoundaryFinder characters(QTextBoundaryFinder::Grapheme, match.captured());
        for (qsizetype start = 0, end = characters.toNextBoundary(); end > 0; start = end, end = characters.toNextBoundary())
            result += match.captured().mid(start, end - start) + zeroWidthSpace;
        copied = match.capturedEnd();
    }
    return result + text.mid(copied);
}

// Cutting inside a surrogate pair would leave half an emoji beside the ellipsis: drop one more unit.
qsizetype wholeCharacters(const QString& text, qsizetype dropped, Qt::TextElideMode mode)
{
    const auto cut = [&] { return mode == Qt::ElideLeft ? dropped : text.size() - dropped; };
    while (dropped < text.size() && text.at(cut()).isLowSurrogate())
        ++dropped;
    return dropped;
}

// `text` as the label wraps it, cut to at most `lines` lines: ElideLeft drops its beginning (the end
// of a dictation is what was just said), ElideRight its end; an ellipsis stands for what went.
QString fittedToLines(const QString& text, const QFont& font, int lines, Qt::TextElideMode mode)
{
    const QFontMetrics metrics(font);
    QString breakable = breakableAnywhere(text, metrics);
    if (fitsInLines(breakable, metrics, lines))
        return breakable;
    const auto shortened = [&](qsizetype dropped) {
        return mode == Qt::ElideLeft ? ellipsis + breakable.mid(dropped).trimmed()
                                     : breakable.left(breakable.size() - dropped).trimmed() + ellipsis;
    };
    // Binary search for the fewest characters to drop: dropping `enough` is known to fit, dropping
    // fewer than `tooFew` is known not to.
    qsizetype tooFew = 1;
    qsizetype enough = breakable.size();
    while (tooFew < enough) {
        const qsizetype middle = wholeCharacters(breakable, tooFew + (enough - tooFew) / 2, mode);
        if (middle >= enough)
            break;
        if (fitsInLines(shortened(middle), metrics, lines))
            enough = middle;
        else
            tooFew = middle + 1;
    }
    return shortened(enough);
}

QLabel* makeLabel(QWidget* parent, const QString& name, const QFont& font, const QString& colour)
{
    auto label = new QLabel(parent);
    label->setObjectName(name);
    label->setFont(font);
    label->setAlignment(Qt::AlignHCenter | Qt::AlignVCenter);
    label->setTextFormat(Qt::PlainText);
    label->setStyleSheet(QStringLiteral("color: %1; background: transparent;").arg(colour));
    return label;
}

HUDPanel::ScreenArea areaOf(const QScreen* screen)
{
    return {screen->geometry(), screen->availableGeometry()};
}

}

HUDPanel::HUDPanel()
    : m_panel(std::make_unique<QWidget>(nullptr,
        Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus | Qt::WindowTransparentForInput
            | Qt::X11BypassWindowManagerHint))
{
    m_panel->setObjectName(QStringLiteral("hudPanel"));
    // Where the panel is an ordinary Wayland window, the compositor's rules pick it out by this title.
    m_panel->setWindowTitle(QStringLiteral("Voxaria — ditado"));
    m_panel->setAttribute(Qt::WA_ShowWithoutActivating);
    m_panel->setAttribute(Qt::WA_TranslucentBackground);
    m_panel->setAttribute(Qt::WA_X11DoNotAcceptFocus);
    // Tool windows would otherwise vanish whenever the application is not the active one.
    m_panel->setAttribute(Qt::WA_MacAlwaysShowToolWindow);
    m_panel->setFocusPolicy(Qt::NoFocus);

    auto background = new QWidget(m_panel.get());
    background->setObjectName(QStringLiteral("hudBackground"));
    background->setAttribute(Qt::WA_StyledBackground);
    // The dark tint of a HUD material under a black veil at 40 %; blurring what lies behind is
    // left to the compositor, where there is one.
    background->setStyleSheet(
        QStringLiteral("#hudBackground { background-color: rgba(16, 16, 18, 212); border-radius: %1px; }").arg(cornerRadius));

    m_statusLabel
        = makeLabel(background, QStringLiteral("statusLabel"), systemFont(12, QFont::DemiBold), QStringLiteral("rgb(255, 255, 255)"));
    // A status wider than the panel, such as an engine's error, goes on over further lines.
    m_statusLabel->setWordWrap(true);
    m_textLabel
        = makeLabel(background, QStringLiteral("textLabel"), systemFont(13, QFont::Normal), QStringLiteral("rgba(255, 255, 255, 217)"));
    m_textLabel->setWordWrap(true);
    m_textLabel->hide();

    m_stack = new QVBoxLayout(background);
    m_stack->setContentsMargins(horizontalInset, verticalInset, horizontalInset, verticalInset);
    m_stack->setSpacing(lineSpacing);
    m_stack->addWidget(m_statusLabel);
    m_stack->addWidget(m_textLabel);

    auto fill = new QVBoxLayout(m_panel.get());
    fill->setContentsMargins(0, 0, 0, 0);
    // The panel's height is set from the measured fit; a minimum from a stale layout must not win.
    fill->setSizeConstraint(QLayout::SetNoConstraint);
    fill->addWidget(background);
    m_panel->resize(width, 64);
    // The native window and the style sheets cost the first show tens of milliseconds: paid here, at
    // start-up, rather than in the key press of the first dictation.
    m_panel->ensurePolished();
    m_panel->winId();
}

HUDPanel::~HUDPanel() = default;

QWidget* HUDPanel::panel() const
{
    return m_panel.get();
}

void HUDPanel::show(const QString& status, const QString& text)
{
    // The status is logged for whoever follows the HUD without seeing it; the user's words only
    // when debugging is asked for.
    qCInfo(lcHud) << "Showing" << status;
    qCDebug(lcHud) << "with text" << text;
    m_statusLabel->setText(fittedToLines(status, m_statusLabel->font(), maximumStatusLines, Qt::ElideRight));
    m_panel->setAccessibleName(status);
    setText(text);
    layoutAndPosition();
    m_panel->show();
    m_panel->raise();
}

void HUDPanel::update(const QString& text)
{
    qCDebug(lcHud) << "Text" << text;
    setText(text);
    layoutAndPosition();
}

void HUDPanel::hide()
{
    qCInfo(lcHud) << "Hidden";
    m_panel->hide();
}

void HUDPanel::setText(const QString& text)
{
    m_textLabel->setText(fittedToLines(text, m_textLabel->font(), maximumTextLines, Qt::ElideLeft));
    m_textLabel->setVisible(!text.isEmpty());
}

int HUDPanel::fittingHeight() const
{
    // Measured on the stack itself: the window's own layout answers from a cache that a label's
    // new text does not clear until the next event-loop pass.
    m_stack->invalidate();
    const int height = m_stack->hasHeightForWidth() ? m_stack->totalHeightForWidth(width) : m_stack->totalSizeHint().height();
    return std::max(height, minimumHeight);
}

std::optional<QRect> HUDPanel::placement(
    const QList<ScreenArea>& screens, const std::optional<ScreenArea>& mainScreen, QPoint pointer, int height)
{
    std::optional<ScreenArea> chosen = mainScreen;
    for (const ScreenArea& screen : screens) {
        if (screen.frame.contains(pointer)) {
            chosen = screen;
            break;
        }
    }
    if (!chosen)
        return std::nullopt;
    const QRect visible = chosen->visibleFrame;
    const int x = visible.x() + visible.width() / 2 - width / 2;
    // Growing upward keeps the bottom edge at the same distance above the screen's bottom.
    const int y = visible.y() + visible.height() - distanceAboveBottom - height;
    return QRect(x, y, width, height);
}

void HUDPanel::layoutAndPosition()
{
    QList<ScreenArea> screens;
    for (const QScreen* screen : QGuiApplication::screens())
        screens.append(areaOf(screen));
    const QScreen* primary = QGuiApplication::primaryScreen();
    const std::optional<ScreenArea> mainScreen = primary ? std::optional(areaOf(primary)) : std::nullopt;
    const std::optional<QRect> frame = placement(screens, mainScreen, QCursor::pos(), fittingHeight());
    if (!frame) {
        qCWarning(lcHud) << "No screen to show the HUD on";
        return;
    }
    m_panel->setGeometry(*frame);
    // Without a compositor the translucent corners would show black: cut them off.
    QPainterPath outline;
    outline.addRoundedRect(QRectF(0, 0, frame->width(), frame->height()), cornerRadius, cornerRadius);
    m_panel->setMask(QRegion(outline.toFillPolygon().toPolygon()));
    m_panel->repaint();
}
