#include "expect_values.h"

#include <gtest/gtest.h>

#include <cstring>

void expectValue(float got, float want, float tol, const char *what)
{
    if (tol == kUlps)
        EXPECT_FLOAT_EQ(got, want) << what;
    else
        EXPECT_NEAR(got, want, tol) << what;
}

void expectVec(const miVector &v, float x, float y, float z, float tol, const char *what)
{
    expectValue(v.x, x, tol, what);
    expectValue(v.y, y, tol, what);
    expectValue(v.z, z, tol, what);
}

void expectVec(const miVector &v, const miVector &want, float tol, const char *what)
{
    expectVec(v, want.x, want.y, want.z, tol, what);
}

void expectColor(const miColor &c, float r, float g, float b, float a, float tol, const char *what)
{
    expectRGB(c, r, g, b, tol, what);
    expectValue(c.a, a, tol, what);
}

void expectColor(const miColor &c, const miColor &want, float tol, const char *what)
{
    expectColor(c, want.r, want.g, want.b, want.a, tol, what);
}

void expectRGB(const miColor &c, float r, float g, float b, float tol, const char *what)
{
    expectValue(c.r, r, tol, what);
    expectValue(c.g, g, tol, what);
    expectValue(c.b, b, tol, what);
}

uint32_t bitsOf(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}
