#include "Corvex/TerminalGLSurface.h"

#include <QEvent>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QResizeEvent>
#include <QSurfaceFormat>
#include <QTimer>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Vellum/RenderLog.h"

namespace corvex {

namespace {

QSurfaceFormat surfaceFormat() {
    QSurfaceFormat format;
    format.setVersion(3, 3);
    format.setProfile(QSurfaceFormat::CoreProfile);
    format.setDepthBufferSize(0);
    format.setStencilBufferSize(0);
    format.setSwapInterval(1); // frames paced to the screen
    return format;
}

// The quad's corners and the pixel-to-device mapping are shared by every vertex stage. Device Y
// points up in OpenGL, so rows are flipped here rather than in the records.
constexpr const char* shaderPrelude = R"(#version 330 core
const vec2 kQuadCorners[6] = vec2[6](vec2(0, 0), vec2(1, 0), vec2(0, 1), vec2(1, 0), vec2(1, 1), vec2(0, 1));
uniform vec2 viewport;
vec4 toDevice(vec2 p) { return vec4(p.x / viewport.x * 2.0 - 1.0, 1.0 - p.y / viewport.y * 2.0, 0.0, 1.0); }
)";

// TextCell: three texels (position and size, atlas origin and size, colour).
constexpr const char* cellTextVertex = R"(
uniform samplerBuffer records;
out vec2 texCoord;
out vec4 color;
void main() {
    int cell = gl_VertexID / 6;
    vec2 corner = kQuadCorners[gl_VertexID % 6];
    vec4 geometry = texelFetch(records, cell * 3);
    vec4 tex = texelFetch(records, cell * 3 + 1);
    color = texelFetch(records, cell * 3 + 2);
    texCoord = tex.xy + tex.zw * corner;
    gl_Position = toDevice(geometry.xy + geometry.zw * corner);
}
)";

// ColorCell: two texels (position and size, colour).
constexpr const char* cellColorVertex = R"(
uniform samplerBuffer records;
out vec2 texCoord;
out vec4 color;
void main() {
    int cell = gl_VertexID / 6;
    vec2 corner = kQuadCorners[gl_VertexID % 6];
    vec4 geometry = texelFetch(records, cell * 2);
    color = texelFetch(records, cell * 2 + 1);
    texCoord = vec2(0.0);
    gl_Position = toDevice(geometry.xy + geometry.zw * corner);
}
)";

// GlyphVertex and ColorVertex, one vertex per record: the cursor.
constexpr const char* vertexVertex = R"(
layout(location = 0) in vec2 position;
layout(location = 1) in vec2 inTexCoord;
layout(location = 2) in vec4 inColor;
out vec2 texCoord;
out vec4 color;
void main() {
    texCoord = inTexCoord;
    color = inColor;
    gl_Position = toDevice(position);
}
)";

constexpr const char* textFragment = R"(#version 330 core
uniform sampler2D atlas;
in vec2 texCoord;
in vec4 color;
out vec4 fragment;
void main() {
    vec4 tex = texture(atlas, texCoord);
    fragment = vec4(tex.rgb * color.rgb, tex.a * color.a);
}
)";

constexpr const char* textGrayFragment = R"(#version 330 core
uniform sampler2D atlas;
in vec2 texCoord;
in vec4 color;
out vec4 fragment;
void main() {
    float coverage = texture(atlas, texCoord).r;
    fragment = vec4(color.rgb * coverage, color.a * coverage);
}
)";

constexpr const char* colorFragment = R"(#version 330 core
in vec2 texCoord;
in vec4 color;
out vec4 fragment;
void main() { fragment = vec4(color.rgb * color.a, color.a); }
)";

} // namespace

TerminalGLSurface::TerminalGLSurface(QWidget* view, std::function<TerminalSurfaceFrame()> source)
    : QOpenGLWidget(view), source_(std::move(source)) {
    setFormat(surfaceFormat());
    // The framebuffer keeps the last frame, so that a frame need draw only the rows it changes.
    setUpdateBehavior(QOpenGLWidget::PartialUpdate);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    // Opaque, so that a frame here never asks the view beneath to paint.
    setAttribute(Qt::WA_OpaquePaintEvent);
    setFocusPolicy(Qt::NoFocus);
    setGeometry(view->rect());
    view->installEventFilter(this);
}

TerminalGLSurface::~TerminalGLSurface() {
    if (!ready_ || !context()) return;
    makeCurrent();
    for (Layer& layer : layers_) {
        glDeleteTextures(1, &layer.texture);
        glDeleteBuffers(1, &layer.buffer);
    }
    GLuint textures[] = {grayAtlas_, colorAtlas_};
    glDeleteTextures(2, textures);
    glDeleteBuffers(1, &vertexBuffer_);
    GLuint arrays[] = {emptyVao_, vertexVao_};
    glDeleteVertexArrays(2, arrays);
    for (GLuint program : {cellColorProgram_, cellTextGrayProgram_, cellTextProgram_, colorProgram_, textGrayProgram_, textProgram_})
        glDeleteProgram(program);
    doneCurrent();
}

bool TerminalGLSurface::enabledByEnvironment() {
    const char* value = std::getenv("VELLUM_METAL_LAYER");
    return !value || std::strcmp(value, "0") != 0;
}

bool TerminalGLSurface::contextAvailable(QString* reason) {
    static const QString failure = [] {
        QOpenGLContext context;
        context.setFormat(surfaceFormat());
        if (!context.create()) return QStringLiteral("no OpenGL context could be made");
        auto version = context.format().version();
        if (version < qMakePair(3, 3))
            return QStringLiteral("OpenGL %1.%2 is older than 3.3").arg(version.first).arg(version.second);
        return QString();
    }();
    if (reason) *reason = failure;
    return failure.isEmpty();
}

const vellum::FrameBuildCounters* TerminalGLSurface::buildCounters() const {
    return builder_ ? &builder_->counters() : nullptr;
}

bool TerminalGLSurface::eventFilter(QObject* watched, QEvent* event) {
    if (watched == parentWidget() && !failed_) {
        if (event->type() == QEvent::Resize) setGeometry(parentWidget()->rect());
        // The view's own painting is replaced by the frames drawn here.
        if (event->type() == QEvent::Paint) return true;
    }
    return QOpenGLWidget::eventFilter(watched, event);
}

void TerminalGLSurface::fail(const QString& reason) {
    if (failed_) return;
    failed_ = true;
    vellum::renderLog(("Vellum: Metal renderer rebind failed; falling back to CoreGraphics: " + reason).toStdString());
    // Handing back happens after this call returns, since the handler may delete the surface.
    QTimer::singleShot(0, parentWidget(), [view = parentWidget(), handler = onFailure, reason] {
        if (handler) handler(reason);
        view->QWidget::update();
    });
}

GLuint compileProgram(QOpenGLFunctions_3_3_Core& gl, const char* vertexBody, const char* fragment, QString* error) {
    auto compile = [&](GLenum kind, std::initializer_list<const char*> parts) -> GLuint {
        GLuint shader = gl.glCreateShader(kind);
        std::vector<const char*> sources(parts);
        gl.glShaderSource(shader, GLsizei(sources.size()), sources.data(), nullptr);
        gl.glCompileShader(shader);
        GLint ok = 0;
        gl.glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
        if (!ok) {
            char log[1024] = {};
            gl.glGetShaderInfoLog(shader, sizeof log, nullptr, log);
            *error = QStringLiteral("Failed to compile shader source: ") + QString::fromUtf8(log);
            gl.glDeleteShader(shader);
            return 0;
        }
        return shader;
    };
    GLuint vertex = compile(GL_VERTEX_SHADER, {shaderPrelude, vertexBody});
    GLuint fragmentShader = vertex ? compile(GL_FRAGMENT_SHADER, {fragment}) : 0;
    if (!vertex || !fragmentShader) {
        if (vertex) gl.glDeleteShader(vertex);
        return 0;
    }
    GLuint program = gl.glCreateProgram();
    gl.glAttachShader(program, vertex);
    gl.glAttachShader(program, fragmentShader);
    gl.glLinkProgram(program);
    gl.glDeleteShader(vertex);
    gl.glDeleteShader(fragmentShader);
    GLint ok = 0;
    gl.glGetProgramiv(program, GL_LINK_STATUS, &ok);
    if (!ok) {
        char log[1024] = {};
        gl.glGetProgramInfoLog(program, sizeof log, nullptr, log);
        *error = QStringLiteral("Failed to create pipeline: ") + QString::fromUtf8(log);
        gl.glDeleteProgram(program);
        return 0;
    }
    gl.glUseProgram(program);
    gl.glUniform1i(gl.glGetUniformLocation(program, "atlas"), 0);
    gl.glUniform1i(gl.glGetUniformLocation(program, "records"), 1);
    return program;
}

bool TerminalGLSurface::buildPrograms(QString* error) {
    struct Want {
        GLuint* program;
        const char* vertex;
        const char* fragment;
    };
    for (Want want : {Want{&cellColorProgram_, cellColorVertex, colorFragment},
                      Want{&cellTextGrayProgram_, cellTextVertex, textGrayFragment},
                      Want{&cellTextProgram_, cellTextVertex, textFragment},
                      Want{&colorProgram_, vertexVertex, colorFragment},
                      Want{&textGrayProgram_, vertexVertex, textGrayFragment},
                      Want{&textProgram_, vertexVertex, textFragment}}) {
        *want.program = compileProgram(*this, want.vertex, want.fragment, error);
        if (!*want.program) return false;
    }
    return true;
}

void TerminalGLSurface::initializeGL() {
    QOpenGLContext* ctx = context();
    if (!ctx || !ctx->isValid()) return fail(QStringLiteral("no OpenGL context could be made"));
    if (ctx->format().version() < qMakePair(3, 3) || !initializeOpenGLFunctions())
        return fail(QStringLiteral("OpenGL 3.3 core is unavailable"));
    QString error;
    if (!buildPrograms(&error)) return fail(error);
    glGenVertexArrays(1, &emptyVao_);
    glGenVertexArrays(1, &vertexVao_);
    glGenBuffers(1, &vertexBuffer_);
    glBindVertexArray(vertexVao_);
    glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer_);
    // GlyphVertex and ColorVertex share one 32-byte layout: position, texture or padding, colour.
    glEnableVertexAttribArray(0);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 32, reinterpret_cast<void*>(0));
    glEnableVertexAttribArray(1);
    glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 32, reinterpret_cast<void*>(8));
    glEnableVertexAttribArray(2);
    glVertexAttribPointer(2, 4, GL_FLOAT, GL_FALSE, 32, reinterpret_cast<void*>(16));
    glBindVertexArray(0);
    for (Layer& layer : layers_) {
        glGenBuffers(1, &layer.buffer);
        glGenTextures(1, &layer.texture);
    }
    GLuint atlases[2];
    glGenTextures(2, atlases);
    grayAtlas_ = atlases[0];
    colorAtlas_ = atlases[1];
    for (GLuint texture : atlases) {
        glBindTexture(GL_TEXTURE_2D, texture);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    }
    ready_ = true;
    framebufferHoldsFrame_ = false;
}

// A new framebuffer holds nothing worth keeping.
void TerminalGLSurface::resizeGL(int, int) { framebufferHoldsFrame_ = false; }

bool TerminalGLSurface::clipToDamage(const vellum::FrameDamage& damage) {
    glDisable(GL_SCISSOR_TEST);
    if (!framebufferHoldsFrame_ || damage.full) return true;
    if (damage.none()) return false;
    // Records are in widget pixels; the scissor is in framebuffer pixels, counted from the bottom.
    double scale = devicePixelRatioF();
    int framebufferHeight = int(std::lround(height() * scale));
    int top = std::clamp(int(std::floor(damage.top * scale)), 0, framebufferHeight);
    int bottom = std::clamp(int(std::ceil(damage.bottom * scale)), 0, framebufferHeight);
    if (bottom <= top) return false;
    glEnable(GL_SCISSOR_TEST);
    glScissor(0, framebufferHeight - bottom, int(std::lround(width() * scale)), bottom - top);
    ++partialFrames_;
    return true;
}

void TerminalGLSurface::uploadAtlas(vellum::GlyphAtlas& atlas, GLuint texture) {
    auto upload = atlas.takeUpload();
    if (!upload) return;
    bool gray = atlas.format() == vellum::GlyphAtlasFormat::grayscale;
    GLenum internal = gray ? GL_R8 : GL_RGBA8, format = gray ? GL_RED : GL_BGRA;
    glBindTexture(GL_TEXTURE_2D, texture);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    if (upload->whole) {
        glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
        glTexImage2D(GL_TEXTURE_2D, 0, GLint(internal), atlas.size(), atlas.size(), 0, format, GL_UNSIGNED_BYTE, atlas.data().data());
        return;
    }
    const auto& r = upload->region;
    glPixelStorei(GL_UNPACK_ROW_LENGTH, atlas.size());
    const uint8_t* first = atlas.data().data() + (size_t(r.y) * atlas.size() + r.x) * atlas.bytesPerPixel();
    glTexSubImage2D(GL_TEXTURE_2D, 0, r.x, r.y, r.width, r.height, format, GL_UNSIGNED_BYTE, first);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
}

// Buffers are kept between frames and only grow, so a steady frame allocates nothing.
template <typename Record>
GLsizei TerminalGLSurface::uploadLayer(Layer& layer, const std::vector<Record>& records) {
    if (records.empty()) return 0;
    GLsizeiptr bytes = GLsizeiptr(records.size() * sizeof(Record));
    glBindBuffer(GL_TEXTURE_BUFFER, layer.buffer);
    if (bytes > layer.capacity) {
        layer.capacity = std::max<GLsizeiptr>(bytes, layer.capacity * 2);
        glBufferData(GL_TEXTURE_BUFFER, layer.capacity, nullptr, GL_STREAM_DRAW);
        glBindTexture(GL_TEXTURE_BUFFER, layer.texture);
        glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32F, layer.buffer);
    }
    glBufferSubData(GL_TEXTURE_BUFFER, 0, bytes, records.data());
    return GLsizei(records.size());
}

void TerminalGLSurface::drawCells(GLuint program, Layer& layer, GLsizei count, GLuint atlas) {
    if (count == 0) return;
    glUseProgram(program);
    glUniform2f(glGetUniformLocation(program, "viewport"), float(width()), float(height()));
    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_BUFFER, layer.texture);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, atlas);
    glBindVertexArray(emptyVao_);
    glDrawArrays(GL_TRIANGLES, 0, count * 6);
}

template <typename Vertex>
void TerminalGLSurface::drawVertices(GLuint program, const std::vector<Vertex>& vertices, GLuint atlas, bool textured) {
    if (vertices.empty()) return;
    GLsizeiptr bytes = GLsizeiptr(vertices.size() * sizeof(Vertex));
    glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer_);
    if (bytes > vertexCapacity_) {
        vertexCapacity_ = std::max<GLsizeiptr>(bytes, 4096);
        glBufferData(GL_ARRAY_BUFFER, vertexCapacity_, nullptr, GL_STREAM_DRAW);
    }
    glBufferSubData(GL_ARRAY_BUFFER, 0, bytes, vertices.data());
    glUseProgram(program);
    glUniform2f(glGetUniformLocation(program, "viewport"), float(width()), float(height()));
    if (textured) {
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, atlas);
    }
    glBindVertexArray(vertexVao_);
    glDrawArrays(GL_TRIANGLES, 0, GLsizei(vertices.size()));
}

void TerminalGLSurface::paintGL() {
    if (!ready_ || failed_) return;
    if (onPaintStarted) onPaintStarted();
    TerminalSurfaceFrame frame = source_ ? source_() : TerminalSurfaceFrame{};
    if (!frame.snapshot) {
        glDisable(GL_SCISSOR_TEST);
        glClearColor(0, 0, 0, 1);
        glClear(GL_COLOR_BUFFER_BIT);
        framebufferHoldsFrame_ = false;
        return;
    }
    try {
        if (!builder_) builder_ = std::make_unique<vellum::TerminalFrameBuilder>(frame.fontFamily.toStdString(), frame.pixelSize);
        builder_->setFont(frame.fontFamily.toStdString(), frame.pixelSize);
    } catch (const std::exception& error) {
        return fail(QString::fromUtf8(error.what()));
    }
    builder_->setCellSize(frame.cell.width(), frame.cell.height());
    const vellum::DrawData& draw = builder_->build(*frame.snapshot, frame.overlay);
    uploadAtlas(builder_->atlas(vellum::GlyphAtlasKind::grayscale), grayAtlas_);
    uploadAtlas(builder_->atlas(vellum::GlyphAtlasKind::color), colorAtlas_);

    if (!clipToDamage(draw.damage)) {
        ++framesDrawn_;
        return;
    }
    glClearColor(draw.clearColor.r, draw.clearColor.g, draw.clearColor.b, 1);
    glClear(GL_COLOR_BUFFER_BIT);
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
    const vellum::FrameDrawData& f = draw.frame;
    // Each layer is one draw, in this order, so that text lies over every background.
    drawCells(cellColorProgram_, layers_[0], uploadLayer(layers_[0], f.backgroundCells), 0);
    drawCells(cellColorProgram_, layers_[1], uploadLayer(layers_[1], f.powerlineJoinCells), 0);
    drawCells(cellTextGrayProgram_, layers_[2], uploadLayer(layers_[2], f.glyphCellsGray), grayAtlas_);
    drawCells(cellTextProgram_, layers_[3], uploadLayer(layers_[3], f.glyphCellsColor), colorAtlas_);
    drawCells(cellColorProgram_, layers_[4], uploadLayer(layers_[4], f.decorationCells), 0);
    drawVertices(colorProgram_, draw.cursorColorVertices, 0, false);
    drawVertices(textGrayProgram_, draw.cursorGlyphVerticesGray, grayAtlas_, true);
    drawVertices(textProgram_, draw.cursorGlyphVerticesColor, colorAtlas_, true);
    glBindVertexArray(0);
    glDisable(GL_SCISSOR_TEST);
    framebufferHoldsFrame_ = true;
    ++framesDrawn_;
}

} // namespace corvex
