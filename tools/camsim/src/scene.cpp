#include "camsim/scene.h"

#include <algorithm>
#include <cmath>

namespace camsim
{

namespace
{

float smoothstep(float t)
{
    return t * t * (3.0f - 2.0f * t);
}

struct Shape
{
    enum Type
    {
        Disk,
        Rectangle,
        HalfPlane,
    };
    Type type = Disk;
    double cx = 0, cy = 0;
    double halfWidth = 0, halfHeight = 0; // radius for a disk
    double cosA = 1, sinA = 0;            // orientation (normal of a half-plane)
    double offset = 0;                    // half-plane: signed distance of the line from the origin
    float colour[3] = {1, 1, 1};
    int rowFirst = 0, rowLast = -1;

    // Signed distance in pixels, positive inside.
    double distance(double x, double y) const
    {
        const double dx = x - cx;
        const double dy = y - cy;
        switch (type)
        {
        case Disk:
            return halfWidth - std::sqrt(dx * dx + dy * dy);
        case Rectangle:
        {
            const double u = dx * cosA + dy * sinA;
            const double v = -dx * sinA + dy * cosA;
            return std::min(halfWidth - std::abs(u), halfHeight - std::abs(v));
        }
        case HalfPlane:
            return x * cosA + y * sinA - offset;
        }
        return 0;
    }

    // Columns that may be covered on row y (conservative).
    void columns(int y, int width, int& first, int& last) const
    {
        if (type == HalfPlane)
        {
            first = 0;
            last = width - 1;
            return;
        }
        double reach = type == Disk ? halfWidth : std::sqrt(halfWidth * halfWidth + halfHeight * halfHeight);
        reach += 2.0;
        const double dy = y - cy;
        const double half = std::sqrt(std::max(0.0, reach * reach - dy * dy));
        first = std::max(0, static_cast<int>(std::floor(cx - half)));
        last = std::min(width - 1, static_cast<int>(std::ceil(cx + half)));
    }
};

} // namespace

const char* sceneKindName(SceneKind kind)
{
    switch (kind)
    {
    case SceneKind::Flat:
        return "flat";
    case SceneKind::Gradient:
        return "gradient";
    case SceneKind::Texture:
        return "texture";
    case SceneKind::Edges:
        return "edges";
    case SceneKind::Natural:
        return "natural";
    case SceneKind::Foliage:
        return "foliage";
    case SceneKind::Sky:
        return "sky";
    }
    return "?";
}

bool parseSceneKind(const std::string& name, SceneKind& kind)
{
    for (SceneKind k : {SceneKind::Flat, SceneKind::Gradient, SceneKind::Texture, SceneKind::Edges,
                        SceneKind::Natural, SceneKind::Foliage, SceneKind::Sky})
    {
        if (name == sceneKindName(k))
        {
            kind = k;
            return true;
        }
    }
    return false;
}

ValueNoise::ValueNoise(Random& random, int width, int height, double cellSize)
    : m_inverseCell(1.0 / std::max(cellSize, 1.0))
{
    m_gridWidth = static_cast<int>(std::floor((width - 1) * m_inverseCell)) + 2;
    m_gridHeight = static_cast<int>(std::floor((height - 1) * m_inverseCell)) + 2;
    m_grid.resize(static_cast<size_t>(m_gridWidth) * static_cast<size_t>(m_gridHeight));
    for (float& v : m_grid)
        v = static_cast<float>(random.uniform(-1.0, 1.0));
    m_cellOfX.resize(static_cast<size_t>(width));
    m_weightOfX.resize(static_cast<size_t>(width));
    for (int x = 0; x < width; ++x)
    {
        const double g = x * m_inverseCell;
        const int cell = static_cast<int>(g);
        m_cellOfX[static_cast<size_t>(x)] = cell;
        m_weightOfX[static_cast<size_t>(x)] = smoothstep(static_cast<float>(g - cell));
    }
}

void ValueNoise::addRow(int y, float amplitude, float* out, std::vector<float>& scratch) const
{
    const double g = y * m_inverseCell;
    const int cell = static_cast<int>(g);
    const float wy = smoothstep(static_cast<float>(g - cell));
    const float* top = m_grid.data() + static_cast<size_t>(cell) * static_cast<size_t>(m_gridWidth);
    const float* bottom = top + m_gridWidth;
    scratch.resize(static_cast<size_t>(m_gridWidth));
    for (int k = 0; k < m_gridWidth; ++k)
        scratch[static_cast<size_t>(k)] = amplitude * (top[k] + wy * (bottom[k] - top[k]));
    const float* column = scratch.data();
    const size_t width = m_cellOfX.size();
    for (size_t x = 0; x < width; ++x)
    {
        const int k = m_cellOfX[x];
        out[x] += column[k] + m_weightOfX[x] * (column[k + 1] - column[k]);
    }
}

struct Scene::Private
{
    SceneKind kind = SceneKind::Flat;
    // Gradient
    double gradCos = 1, gradSin = 0, gradScale = 1;
    float gradStart[3] = {1, 1, 1};
    float gradEnd[3] = {1, 1, 1};
    // Fields (empty when the kind does not use them)
    std::vector<ValueNoise> lighting; // summed, then exponentiated
    std::vector<float> lightingAmplitude;
    std::vector<ValueNoise> tint; // one per colour
    float tintAmplitude = 0;
    std::vector<ValueNoise> texture; // summed, relative modulation
    std::vector<float> textureAmplitude;
    std::vector<ValueNoise> textureMask; // zero or one field; where texture shows
    float background[3] = {1, 1, 1};
    std::vector<Shape> shapes;
    double edgeSoftness = 1.0; // pixels over which an edge ramps (lens blur)
    // Row buffers
    std::vector<float> light, mask, tex, scratch;
};

Scene::Scene(SceneKind kind, uint64_t seed, int width, int height)
    : m_width(width), m_height(height), m_d(std::make_unique<Private>())
{
    Private& d = *m_d;
    d.kind = kind;
    Random random(combineSeeds(seed, hashText(sceneKindName(kind))));
    const double size = std::max(width, height);
    const auto randomTint = [&random](float* colour, double level, double spread)
    {
        for (int c = 0; c < 3; ++c)
            colour[c] = static_cast<float>(level * std::exp(spread * random.gaussian()));
    };
    const auto addShapes =
        [&](int count, double minSize, double maxSize, double levelSigma, double tintSpread)
    {
        for (int i = 0; i < count; ++i)
        {
            Shape s;
            const int pick = random.below(10);
            s.type = pick < 4 ? Shape::Disk : Shape::Rectangle;
            s.cx = random.uniform(-0.05, 1.05) * width;
            s.cy = random.uniform(-0.05, 1.05) * height;
            s.halfWidth = size * random.uniform(minSize, maxSize);
            s.halfHeight = s.type == Shape::Disk ? s.halfWidth : size * random.uniform(minSize, maxSize);
            const double angle = random.uniform(0.0, 3.14159265358979);
            s.cosA = std::cos(angle);
            s.sinA = std::sin(angle);
            // Capped, so a bright object rarely clips at ordinary exposures.
            randomTint(s.colour, std::min(1.6, 0.7 * std::exp(levelSigma * random.gaussian())), tintSpread);
            const double reach = s.type == Shape::Disk ? s.halfWidth : std::hypot(s.halfWidth, s.halfHeight);
            s.rowFirst = std::max(0, static_cast<int>(std::floor(s.cy - reach - 2)));
            s.rowLast = std::min(height - 1, static_cast<int>(std::ceil(s.cy + reach + 2)));
            if (s.rowFirst <= s.rowLast)
                d.shapes.push_back(s);
        }
    };

    switch (kind)
    {
    case SceneKind::Flat:
        break;
    case SceneKind::Gradient:
    {
        const double angle = random.uniform(0.0, 2.0 * 3.14159265358979);
        d.gradCos = std::cos(angle);
        d.gradSin = std::sin(angle);
        d.gradScale = 1.0 / (std::abs(d.gradCos) * width + std::abs(d.gradSin) * height);
        randomTint(d.gradStart, 0.2, 0.1);
        randomTint(d.gradEnd, 1.8, 0.1);
        break;
    }
    case SceneKind::Texture:
        d.lighting.emplace_back(random, width, height, size / 2.0);
        d.lightingAmplitude.push_back(0.1f);
        for (double cell : {2.0, 4.0, 8.0, 16.0})
        {
            d.texture.emplace_back(random, width, height, cell);
            d.textureAmplitude.push_back(static_cast<float>(0.08 * std::sqrt(cell)));
        }
        randomTint(d.background, 1.0, 0.1);
        break;
    case SceneKind::Edges:
        randomTint(d.background, 0.8, 0.05);
        addShapes(30, 0.02, 0.12, 0.7, 0.1);
        d.edgeSoftness = 0.7;
        break;
    case SceneKind::Natural:
    case SceneKind::Foliage:
    case SceneKind::Sky:
    {
        // Lighting that varies smoothly across the frame (sky, shade, lamps).
        for (double f : {2.5, 5.0, 10.0})
        {
            d.lighting.emplace_back(random, width, height, size / f);
            d.lightingAmplitude.push_back(static_cast<float>(0.8 / std::sqrt(f / 2.5)));
        }
        for (int c = 0; c < 3; ++c)
            d.tint.emplace_back(random, width, height, size / 4.0);
        d.tintAmplitude = 0.25f;
        // Above the horizon: the background, a bright bluish sky in Sky scenes.
        if (kind == SceneKind::Sky)
        {
            randomTint(d.background, 8.0, 0.05);
            d.background[2] *= 1.3f;
        }
        else
            randomTint(d.background, 0.6, 0.15);
        // A horizon-like straight edge, then objects.
        Shape horizon;
        horizon.type = Shape::HalfPlane;
        const double tilt = random.uniform(-0.15, 0.15) + 3.14159265358979 / 2.0;
        horizon.cosA = std::cos(tilt);
        horizon.sinA = std::sin(tilt);
        horizon.offset = horizon.cosA * width / 2.0 + horizon.sinA * height * random.uniform(0.35, 0.75);
        randomTint(horizon.colour, 0.45, 0.2);
        horizon.rowFirst = 0;
        horizon.rowLast = height - 1;
        d.shapes.push_back(horizon);
        if (kind == SceneKind::Sky)
            horizon.offset = horizon.cosA * width / 2.0 + horizon.sinA * height * random.uniform(0.3, 0.55);
        // Objects stand on the ground, under the sky.
        const size_t firstObject = d.shapes.size();
        addShapes(6 + random.below(9), 0.03, 0.2, 0.8, 0.3);
        if (kind == SceneKind::Sky)
            for (size_t i = firstObject; i < d.shapes.size(); ++i)
            {
                Shape& s = d.shapes[i];
                s.cy = std::max(s.cy, height * 0.6);
                const double reach = s.type == Shape::Disk ? s.halfWidth : std::hypot(s.halfWidth, s.halfHeight);
                s.rowFirst = std::max(0, static_cast<int>(std::floor(s.cy - reach - 2)));
                s.rowLast = std::min(height - 1, static_cast<int>(std::ceil(s.cy + reach + 2)));
            }
        if (kind == SceneKind::Foliage)
        {
            // Leaves everywhere: strong texture down to the pixel scale, no plain patches.
            for (double cell : {1.3, 2.5, 5.0})
            {
                d.texture.emplace_back(random, width, height, cell);
                d.textureAmplitude.push_back(0.3f);
            }
        }
        else
        {
            // Grass, foliage, fabric: fine texture in patches.
            d.textureMask.emplace_back(random, width, height, size / 6.0);
            for (double cell : {2.5, 6.0})
            {
                d.texture.emplace_back(random, width, height, cell);
                d.textureAmplitude.push_back(cell < 3.0 ? 0.12f : 0.09f);
            }
        }
        d.edgeSoftness = 1.2;
        break;
    }
    }
    const size_t w = static_cast<size_t>(width);
    d.light.resize(w);
    d.mask.resize(w);
    d.tex.resize(w);
}

Scene::~Scene() = default;

void Scene::renderRow(int y, float* red, float* green, float* blue)
{
    Private& d = *m_d;
    const int width = m_width;
    float* out[3] = {red, green, blue};

    if (d.kind == SceneKind::Gradient)
    {
        const double base = (0.0 - width / 2.0) * d.gradCos + (y - m_height / 2.0) * d.gradSin;
        for (int x = 0; x < width; ++x)
        {
            const float t =
                static_cast<float>(std::clamp((base + x * d.gradCos) * d.gradScale + 0.5, 0.0, 1.0));
            for (int c = 0; c < 3; ++c)
                out[c][x] = d.gradStart[c] + t * (d.gradEnd[c] - d.gradStart[c]);
        }
        return;
    }

    // Reflectance: background, tinted, then shapes painted in order with soft edges.
    for (int c = 0; c < 3; ++c)
    {
        std::fill(out[c], out[c] + width, d.background[c]);
        if (!d.tint.empty())
        {
            std::fill(d.tex.begin(), d.tex.end(), 1.0f);
            d.tint[static_cast<size_t>(c)].addRow(y, d.tintAmplitude, d.tex.data(), d.scratch);
            for (int x = 0; x < width; ++x)
                out[c][x] *= d.tex[static_cast<size_t>(x)];
        }
    }
    const double invSoft = 1.0 / d.edgeSoftness;
    for (const Shape& s : d.shapes)
    {
        if (y < s.rowFirst || y > s.rowLast)
            continue;
        int first = 0, last = -1;
        s.columns(y, width, first, last);
        for (int x = first; x <= last; ++x)
        {
            const double cover = std::clamp(s.distance(x, y) * invSoft + 0.5, 0.0, 1.0);
            if (cover <= 0.0)
                continue;
            const float a = static_cast<float>(cover);
            for (int c = 0; c < 3; ++c)
                out[c][x] += a * (s.colour[c] - out[c][x]);
        }
    }

    // Texture, where the mask lets it show.
    if (!d.texture.empty())
    {
        std::fill(d.tex.begin(), d.tex.end(), 0.0f);
        for (size_t i = 0; i < d.texture.size(); ++i)
            d.texture[i].addRow(y, d.textureAmplitude[i], d.tex.data(), d.scratch);
        if (!d.textureMask.empty())
        {
            std::fill(d.mask.begin(), d.mask.end(), 0.0f);
            d.textureMask.front().addRow(y, 2.5f, d.mask.data(), d.scratch);
            for (int x = 0; x < width; ++x)
                d.tex[static_cast<size_t>(x)] *= std::clamp(d.mask[static_cast<size_t>(x)], 0.0f, 1.0f);
        }
        for (int c = 0; c < 3; ++c)
            for (int x = 0; x < width; ++x)
                out[c][x] *= std::max(0.05f, 1.0f + d.tex[static_cast<size_t>(x)]);
    }

    // Lighting multiplies everything.
    if (!d.lighting.empty())
    {
        std::fill(d.light.begin(), d.light.end(), 0.0f);
        for (size_t i = 0; i < d.lighting.size(); ++i)
            d.lighting[i].addRow(y, d.lightingAmplitude[i], d.light.data(), d.scratch);
        for (int x = 0; x < width; ++x)
        {
            const float l = std::exp(std::min(d.light[static_cast<size_t>(x)], 0.9f));
            for (int c = 0; c < 3; ++c)
                out[c][x] *= l;
        }
    }
}

} // namespace camsim
