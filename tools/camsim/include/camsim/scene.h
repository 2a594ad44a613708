#pragma once

#include "camsim/random.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace camsim
{

enum class SceneKind
{
    Flat,     // uniform neutral grey
    Gradient, // linear ramp in a random direction with a slight colour shift
    Texture,  // fine multi-scale texture over the whole frame
    Edges,    // hard-edged shapes on a plain background
    Natural,  // smooth lighting, coloured objects, textured patches and edges
    Foliage,  // a natural scene covered with dense fine texture (leaves, grass)
    Sky,      // a natural scene under a bright sky, about 8 times the ground's level
};

const char* sceneKindName(SceneKind kind);
// False when the name is unknown.
bool parseSceneKind(const std::string& name, SceneKind& kind);

// A smooth random field in about [-1, 1]: random values on a grid of square
// cells, interpolated with smoothstep weights. Evaluated a row at a time.
class ValueNoise
{
public:
    ValueNoise(Random& random, int width, int height, double cellSize);
    // out[x] += amplitude * noise(x, y) for the whole row; scratch is reused between calls.
    void addRow(int y, float amplitude, float* out, std::vector<float>& scratch) const;

private:
    int m_gridWidth = 0;
    int m_gridHeight = 0;
    double m_inverseCell = 1.0;
    std::vector<float> m_grid;
    std::vector<int> m_cellOfX;
    std::vector<float> m_weightOfX;
};

// Linear scene radiance in R, G, B, the same for every camera. Levels are
// relative: the camera scales the frame mean to its exposure.
class Scene
{
public:
    Scene(SceneKind kind, uint64_t seed, int width, int height);
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    int width() const { return m_width; }
    int height() const { return m_height; }
    // Fills one row of each colour (width values each). Uses internal scratch
    // buffers, so one Scene serves one thread.
    void renderRow(int y, float* red, float* green, float* blue);

private:
    struct Private;
    int m_width;
    int m_height;
    std::unique_ptr<Private> m_d;
};

} // namespace camsim
