#pragma once

#include <QOpenGLFunctions_3_3_Core>
#include <QOpenGLWidget>
#include <QString>
#include <array>
#include <functional>
#include <memory>

#include "Vellum/TerminalFrameBuilder.h"

namespace corvex {

// What the surface draws: the view's retained snapshot and what the view adds to it.
struct TerminalSurfaceFrame {
    const vellum::TerminalSnapshot* snapshot = nullptr;
    vellum::FrameOverlay overlay;
    QString fontFamily;
    double pixelSize = 0;
    QSize cell; // the view's grid, which the glyphs are placed in
};

// Draws a terminal view's snapshot with OpenGL 3.3: the frame is a few flat arrays of cell
// records in buffer textures, and each layer is one draw whose vertex shader expands record
// `gl_VertexID / 6` into its quad. It lies over its view, takes no input, and draws when the
// view asks it to; the view's own painting is held back meanwhile.
class TerminalGLSurface : public QOpenGLWidget, protected QOpenGLFunctions_3_3_Core {
    Q_OBJECT
public:
    // Covers `view` and draws what `source` gives each time the view paints.
    TerminalGLSurface(QWidget* view, std::function<TerminalSurfaceFrame()> source);
    ~TerminalGLSurface() override;

    // The GPU path is on unless VELLUM_METAL_LAYER is "0".
    static bool enabledByEnvironment();
    // Whether an OpenGL 3.3 core context can be made here; the reason when not. Tried once.
    static bool contextAvailable(QString* reason = nullptr);

    // The surface could not draw: the view goes back to its own painting.
    std::function<void(const QString& reason)> onFailure;
    // A frame begins; its swap is QOpenGLWidget::frameSwapped.
    std::function<void()> onPaintStarted;

    uint64_t framesDrawn() const { return framesDrawn_; }
    // Frames that drew only a band of changed rows over the last frame's pixels.
    uint64_t partialFrames() const { return partialFrames_; }
    const vellum::FrameBuildCounters* buildCounters() const;

protected:
    void initializeGL() override;
    void resizeGL(int width, int height) override;
    void paintGL() override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    struct Layer {
        GLuint buffer = 0, texture = 0;
        GLsizeiptr capacity = 0;
    };
    void fail(const QString& reason);
    // Limits drawing to the damaged band when the framebuffer still holds the last frame; false
    // when nothing needs drawing at all.
    bool clipToDamage(const vellum::FrameDamage& damage);
    bool buildPrograms(QString* error);
    void uploadAtlas(vellum::GlyphAtlas& atlas, GLuint texture);
    template <typename Record>
    GLsizei uploadLayer(Layer& layer, const std::vector<Record>& records);
    void drawCells(GLuint program, Layer& layer, GLsizei count, GLuint atlas);
    template <typename Vertex>
    void drawVertices(GLuint program, const std::vector<Vertex>& vertices, GLuint atlas, bool textured);

    std::function<TerminalSurfaceFrame()> source_;
    std::unique_ptr<vellum::TerminalFrameBuilder> builder_;
    bool ready_ = false, failed_ = false;
    GLuint cellColorProgram_ = 0, cellTextGrayProgram_ = 0, cellTextProgram_ = 0;
    GLuint colorProgram_ = 0, textGrayProgram_ = 0, textProgram_ = 0;
    GLuint emptyVao_ = 0, vertexVao_ = 0, vertexBuffer_ = 0;
    GLsizeiptr vertexCapacity_ = 0;
    GLuint grayAtlas_ = 0, colorAtlas_ = 0;
    std::array<Layer, 5> layers_{};
    uint64_t framesDrawn_ = 0, partialFrames_ = 0;
    bool framebufferHoldsFrame_ = false;
};

} // namespace corvex
