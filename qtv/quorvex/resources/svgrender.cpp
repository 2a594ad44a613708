// Build-time tool: renders one SVG icon source to a PNG.
//   quorvex_svgrender SOURCE.svg OUTPUT.png WIDTH HEIGHT [ANGLE]
// ANGLE (degrees, clockwise) turns the drawing about its centre; the busy
// indicator's frames are one source turned by 45 degrees per frame.

#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QString>
#include <QSvgRenderer>

#include <cstdio>

namespace
{

int fail(const QString& message)
{
    std::fprintf(stderr, "quorvex_svgrender: %s\n", qUtf8Printable(message));
    return 1;
}

bool toPositiveInt(const QString& text, int* value)
{
    bool ok = false;
    *value = text.toInt(&ok);
    return ok && *value > 0 && *value <= 4096;
}

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);

    const QStringList args = QGuiApplication::arguments();
    if (args.size() != 5 && args.size() != 6)
        return fail(QStringLiteral("usage: quorvex_svgrender SOURCE.svg OUTPUT.png WIDTH HEIGHT [ANGLE]"));

    int width = 0;
    int height = 0;
    if (!toPositiveInt(args.at(3), &width) || !toPositiveInt(args.at(4), &height))
        return fail(QStringLiteral("width and height must be whole numbers from 1 to 4096"));
    double angle = 0.0;
    if (args.size() == 6)
    {
        bool ok = false;
        angle = args.at(5).toDouble(&ok);
        if (!ok)
            return fail(QStringLiteral("the angle must be a number of degrees"));
    }

    QSvgRenderer renderer(args.at(1));
    if (!renderer.isValid())
        return fail(QStringLiteral("cannot read the SVG file %1").arg(args.at(1)));

    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
        if (angle != 0.0)
        {
            painter.translate(width / 2.0, height / 2.0);
            painter.rotate(angle);
            painter.translate(-width / 2.0, -height / 2.0);
        }
        renderer.render(&painter, QRectF(0, 0, width, height));
    }

    if (!image.save(args.at(2), "PNG"))
        return fail(QStringLiteral("cannot write %1").arg(args.at(2)));
    return 0;
}
