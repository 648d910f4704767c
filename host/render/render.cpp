#include "render_session.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <unistd.h>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace druxhost {

namespace {

size_t countMessages(mirt::Level level)
{
    size_t n = 0;
    for (const mirt::Message &m : mirt::messages())
        if (m.level == level)
            ++n;
    return n;
}

/* The shaders of the built-in commands, resolved in the linked libraries. */
/* The whole image, or the region asked for clipped to it. */
Region renderRegion(const SceneDesc &s, const RenderOptions &ro)
{
    const Region whole{0, 0, s.width, s.height};
    return ro.region.empty() ? whole : intersect(ro.region, whole);
}

RenderResult emptyResult(const SceneDesc &s, const Region &r)
{
    RenderResult out;
    out.originX = r.x0;
    out.originY = r.y0;
    out.fingerprint = sceneFingerprint(s);
    out.main = Image(r.width(), r.height());
    for (const PassDesc &p : s.passes) {
        out.passNames.push_back(p.name);
        out.passRoles.push_back(p.role);
        out.passes.emplace_back(r.width(), r.height());
    }
    std::vector<std::string> instanceNames, materialNames;
    for (const InstanceDesc &i : s.instances)
        instanceNames.push_back(i.name);
    for (const MaterialDesc &m : s.materials)
        materialNames.push_back(m.name);
    out.mattes.push_back(makeCryptoMatte("CryptoObject", instanceNames, r.width(), r.height()));
    out.mattes.push_back(makeCryptoMatte("CryptoMaterial", materialNames, r.width(), r.height()));
    return out;
}

/* Memory the system can give without swapping (MemAvailable), else all of
   it; 0 when unknown. */
uint64_t availableMemory()
{
    std::ifstream in("/proc/meminfo");
    std::string key;
    uint64_t kib = 0;
    while (in >> key >> kib) {
        if (key == "MemAvailable:")
            return kib * 1024;
        in.ignore(1 << 10, '\n');
    }
    const long pages = ::sysconf(_SC_PHYS_PAGES), size = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && size > 0 ? uint64_t(pages) * uint64_t(size) : 0;
}

std::string gib(uint64_t bytes)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f GiB", double(bytes) / double(1ull << 30));
    return buf;
}

} // namespace

uint64_t renderImageBytes(const SceneDesc &s, const Region &region)
{
    const Region r = region.empty() ? Region{0, 0, s.width, s.height} : region;
    const uint64_t pixels = uint64_t(r.width()) * uint64_t(r.height());
    return pixels * sizeof(miColor) * (uint64_t(s.passes.size()) + 9);
}


miColor RenderSession::shadeSample(miState *st, int x, int y, int k, CryptoPixel *objectPx, CryptoPixel *materialPx)
{
    ctx_->begin_sample(st, x, y, k);
    double jx, jy;
    mirt::pixel_jitter(x, y, k, s_.samples, jx, jy);
    const miVector dir = camera_->ray(x + jx, y + jy);
    miColor c;
    const miBoolean ok = ctx_->shade_eye(st, camera_->origin, dir, &c);
    int hitInstance = -1, hitMaterial = -1;
    cryptoTags_.find(st->instance, hitInstance, hitMaterial);
    if (objectPx)
        objectPx->add(hitInstance, 1.0f);
    if (materialPx)
        materialPx->add(hitMaterial, 1.0f);
    ctx_->end_sample(st, ok);
    return c;
}

void RenderSession::shadePixel(miState *st, int x, int y, PixelScratch &px)
{
    miColor sum{0, 0, 0, 0};
    for (size_t p = 0; p < s_.passes.size(); ++p)
        px.passSum[p] = pixelFilterStart(s_.passes[p].role);
    px.objectPx.clear();
    px.materialPx.clear();
    for (int k = 0; k < s_.samples; ++k) {
        const miColor c = shadeSample(st, x, y, k, &px.objectPx, &px.materialPx);
        sum.r += c.r;
        sum.g += c.g;
        sum.b += c.b;
        sum.a += c.a;
        miColor *fb = ctx_->sample_framebuffers(st);
        for (size_t p = 0; fb && p < s_.passes.size(); ++p) {
            if (!fbIndex_[p])
                continue;
            miColor &v = fb[fbIndex_[p] - 1];
            pixelFilterAdd(s_.passes[p].role, px.passSum[p], v);
            v = miColor{0, 0, 0, 0};
        }
    }
    const float inv = invSamples_;
    const int ix = x - out_.originX, iy = y - out_.originY;
    out_.main.set(ix, iy, miColor{sum.r * inv, sum.g * inv, sum.b * inv, sum.a * inv});
    px.objectPx.write(out_.mattes[0], ix, iy);
    px.materialPx.write(out_.mattes[1], ix, iy);
    for (size_t p = 0; p < s_.passes.size(); ++p)
        out_.passes[p].set(ix, iy, pixelFilterEnd(s_.passes[p].role, px.passSum[p], inv));
}

void RenderSession::shadeOne(int x, int y, int k, miColor &main, std::vector<miColor> &passes)
{
    miState *st = ctx_->begin_state(0);
    mi_shaderstate_set(st, KELU_BASE_STATE_KEY, &base_, sizeof base_, 2);
    main = shadeSample(st, x, y, k, nullptr, nullptr);
    passes.assign(s_.passes.size(), miColor{0, 0, 0, 0});
    const miColor *fb = ctx_->sample_framebuffers(st);
    for (size_t p = 0; p < s_.passes.size(); ++p) {
        miColor acc = pixelFilterStart(s_.passes[p].role);
        if (fbIndex_[p] && fb)
            pixelFilterAdd(s_.passes[p].role, acc, fb[fbIndex_[p] - 1]);
        passes[p] = pixelFilterEnd(s_.passes[p].role, acc, 1.0f);
    }
    ctx_->end_state(st);
}

Region RenderSession::tileRect(int tile) const
{
    const int ts = std::max(1, ro_.tileSize);
    const int x0 = (tile % tilesX_) * ts, y0 = (tile / tilesX_) * ts;
    return intersect(Region{x0, y0, x0 + ts, y0 + ts}, renderRegion(s_, ro_));
}

void RenderSession::renderTile(miState *st, int tile, PixelScratch &px)
{
    const Region r = tileRect(tile);
    for (int y = r.y0; y < r.y1; ++y)
        for (int x = r.x0; x < r.x1; ++x)
            shadePixel(st, x, y, px);
}

std::vector<Region> RenderSession::finishedRegions() const
{
    std::vector<Region> out;
    for (size_t w = 0; w < work_.size(); ++w) {
        if (!done_[w])
            continue;
        const Region r = tileRect(work_[w]);
        /* a tile right of the last one of the same rows extends it */
        if (!out.empty() && out.back().y0 == r.y0 && out.back().y1 == r.y1 && out.back().x1 == r.x0)
            out.back().x1 = r.x1;
        else
            out.push_back(r);
    }
    return out;
}

void RenderSession::noteFatal(const std::string &text)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (fatal_.empty())
        fatal_ = text;
    nextTile_.store(static_cast<int>(work_.size()));
}

void RenderSession::worker(int thread)
{
    miState *st = nullptr;
    PixelScratch px(s_.passes.size(), s_.samples);
    try {
        const int works = static_cast<int>(work_.size());
        for (int w; (w = nextTile_.fetch_add(1)) < works;) {
            if (ro_.stop && ro_.stop->load()) {
                std::lock_guard<std::mutex> lk(mu_);
                stopped_ = ro_.stop->load();
                nextTile_.store(works);
                break;
            }
            if (!st) {
                st = ctx_->begin_state(thread);
                mi_shaderstate_set(st, KELU_BASE_STATE_KEY, &base_, sizeof base_, 2);
            }
            renderTile(st, work_[size_t(w)], px);
            done_[size_t(w)] = 1;
            tilesDone_.fetch_add(1);
        }
    } catch (const mirt::FatalError &e) {
        noteFatal(e.text);
    } catch (const std::exception &e) {
        noteFatal(e.what());
    }
    /* wait until the controller has looked at the memory in use */
    {
        std::unique_lock<std::mutex> lk(mu_);
        ++finished_;
        cv_.notify_all();
        cv_.wait(lk, [&] { return release_; });
    }
    if (st)
        ctx_->end_state(st);
}

/* Reports progress until every worker is done, then notes the memory in use
   while their states are still alive and lets them end. */
void RenderSession::waitForWorkers(int threads)
{
    std::unique_lock<std::mutex> lk(mu_);
    while (finished_ < threads) {
        cv_.wait_for(lk, std::chrono::milliseconds(100));
        if (ro_.progress) {
            const double f = work_.empty() ? 1.0 : double(tilesDone_.load()) / double(work_.size());
            lk.unlock();
            ro_.progress(f);
            lk.lock();
        }
    }
    for (const std::string &tag : libraryMemoryTags())
        out_.stats.memory.push_back(TagMemory{tag, mirt::mem_live_bytes(tag), 0});
    release_ = true;
    cv_.notify_all();
}

void RenderSession::renderTiles()
{
    const int ts = std::max(1, ro_.tileSize);
    tilesX_ = (s_.width + ts - 1) / ts;
    tiles_ = tilesX_ * ((s_.height + ts - 1) / ts);
    /* the tiles of the region, less those rendered before */
    uint64_t pixels = 0;
    for (int t = 0; t < tiles_; ++t) {
        const Region r = tileRect(t);
        if (r.empty() || std::any_of(ro_.skip.begin(), ro_.skip.end(),
                                     [&](const Region &k) { return intersect(r, k) == r; }))
            continue;
        work_.push_back(t);
        pixels += uint64_t(r.width()) * uint64_t(r.height());
    }
    done_.assign(work_.size(), 0);
    int threads = ro_.threads > 0 ? ro_.threads : static_cast<int>(std::thread::hardware_concurrency());
    threads = std::max(1, std::min(threads, std::max(1, static_cast<int>(work_.size()))));
    out_.stats.threads = threads;

    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        try {
            pool.emplace_back(&RenderSession::worker, this, t);
        } catch (const std::system_error &e) {
            /* the system starts no more threads: render with those running */
            if (pool.empty()) {
                noteFatal(std::string("cannot start a render thread: ") + e.what());
                return;
            }
            mi_warning("the system started only %zu of %d render threads (%s); rendering with those",
                       pool.size(), threads, e.what());
            break;
        }
    }
    threads = static_cast<int>(pool.size());
    out_.stats.threads = threads;
    waitForWorkers(threads);
    out_.stats.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (std::thread &t : pool)
        t.join();
    if (ro_.progress && !stopped_)
        ro_.progress(1.0);
    out_.stats.eyeSamples = pixels * static_cast<uint64_t>(s_.samples);
}


RenderResult render(const SceneDesc &s, const RenderOptions &ro)
{
    validate(s);
    const uint64_t need = renderImageBytes(s, renderRegion(s, ro)), have = availableMemory();
    if (have && need > have)
        throw SceneError(s.resolutionLine, "resolution " + std::to_string(s.width) + " x " + std::to_string(s.height) +
                                               " with " + std::to_string(s.passes.size()) + " passes needs " +
                                               gib(need) + " for its images, more than the " + gib(have) +
                                               " of memory available; lower the resolution or leave passes out");
    const auto setupStart = std::chrono::steady_clock::now();
    const size_t errorsBefore = countMessages(mirt::Level::Error);
    const size_t warningsBefore = countMessages(mirt::Level::Warning);
    RenderResult out = emptyResult(s, renderRegion(s, ro));
    std::string fatal;
    int stopped = 0;
    {
        RenderSession session(s, ro, out);
        session.setUp();
        out.stats.setupSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - setupStart).count();
        session.renderTiles();
        out.covered = session.finishedRegions();
        session.tearDown();
        fatal = session.fatal();
        stopped = session.stopped();
    }
    for (TagMemory &m : out.stats.memory)
        m.after = mirt::mem_live_bytes(m.tag);
    out.stats.pinsAfter = mirt::db_total_pins();
    out.stats.errors = countMessages(mirt::Level::Error) - errorsBefore;
    out.stats.warnings = countMessages(mirt::Level::Warning) - warningsBefore;
    if (!fatal.empty())
        throw std::runtime_error("render stopped: " + fatal);
    if (stopped && !ro.keepOnStop)
        throw RenderInterrupted(stopped);
    out.interrupted = stopped;
    return out;
}

PixelSample debugPixel(const SceneDesc &s, int x, int y, int sample, const RenderOptions &ro)
{
    validate(s);
    if (x < 0 || y < 0 || x >= s.width || y >= s.height || sample < 0 || sample >= s.samples)
        throw std::runtime_error("pixel " + std::to_string(x) + "," + std::to_string(y) + " sample " +
                                 std::to_string(sample) + " lies outside the " + std::to_string(s.width) + " x " +
                                 std::to_string(s.height) + " image of " + std::to_string(s.samples) + " samples");
    PixelSample out;
    out.passNames.clear();
    for (const PassDesc &p : s.passes)
        out.passNames.push_back(p.name);
    RenderResult scratch = emptyResult(s, Region{0, 0, s.width, s.height});
    ShaderTracer tracer;
    {
        RenderSession session(s, ro, scratch);
        session.setUp(&tracer);
        tracer.start(&out.trace);
        session.shadeOne(x, y, sample, out.main, out.passes);
        tracer.stop();
        session.tearDown();
    }
    return out;
}

} // namespace druxhost
