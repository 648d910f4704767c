/*
 * Conversion between red-green-blue and hue-saturation-value colours.  Hue is
 * a fraction of a turn in [0, 1): 0 red, 1/3 green, 2/3 blue.  Alpha passes
 * through unchanged.
 */
#include "druxInternal.h"

extern "C" DRUX_API void hsv_to_rgb(const miColor *hsv, miColor *rgb)
{
    /* Read everything first: the conversion may run in place. */
    float h = hsv->r, s = hsv->g, v = hsv->b;
    rgb->a = hsv->a;
    if (s == 0.0f) {
        rgb->r = rgb->g = rgb->b = v;
        return;
    }
    if (h >= 1.0f)
        h -= std::floor(h);
    float x = 6.0f * h;
    float fl = std::floor(x);
    float f = x - fl;
    float p = (1.0f - s) * v;
    float q = (1.0f - s * f) * v;
    float t = (1.0f - s * (1.0f - f)) * v;
    /* A negative or non-number hue falls outside every sector: only alpha is
       written then. */
    if (!(fl >= 0.0f && fl < 6.0f))
        return;
    switch (static_cast<int>(fl)) {
    case 0: rgb->r = v; rgb->g = t; rgb->b = p; break;
    case 1: rgb->r = q; rgb->g = v; rgb->b = p; break;
    case 2: rgb->r = p; rgb->g = v; rgb->b = t; break;
    case 3: rgb->r = p; rgb->g = q; rgb->b = v; break;
    case 4: rgb->r = t; rgb->g = p; rgb->b = v; break;
    case 5: rgb->r = v; rgb->g = p; rgb->b = q; break;
    default: break;
    }
}

extern "C" DRUX_API void rgb_to_hsv(const miColor *rgb, miColor *hsv)
{
    const float r = rgb->r, g = rgb->g, b = rgb->b;
    hsv->a = rgb->a;
    float mx = std::fmax(r, std::fmax(g, b));
    float mn = std::fmin(r, std::fmin(g, b));
    float delta = mx - mn;
    hsv->b = mx;
    if (delta > KELU_EPS && mx > KELU_EPS) {
        hsv->g = delta / mx;
        float h;
        if (mx == r)
            h = (g - b) / delta;
        else if (mx == g)
            h = (b - r) / delta + 2.0f;
        else
            h = (r - g) / delta + 4.0f;
        h /= 6.0f;
        if (h < 0.0f)
            h += 1.0f;
        hsv->r = h;
    } else {
        hsv->r = 0.0f;
        hsv->g = 0.0f;
    }
}
