/*
 * Component-wise checks of vectors and colours.
 *
 * `tol` is the largest difference allowed per component: 0 asks for exact
 * equality, kUlps for equality to four units in the last place (as
 * EXPECT_FLOAT_EQ).  `what` is printed with a failure.
 */
#ifndef DRUX_EXPECT_VALUES_H
#define DRUX_EXPECT_VALUES_H

#include "shader.h"

#include <cstdint>

constexpr float kUlps = -1.0f;

void expectValue(float got, float want, float tol, const char *what = "");
void expectVec(const miVector &v, float x, float y, float z, float tol = 1e-5f, const char *what = "");
void expectVec(const miVector &v, const miVector &want, float tol = 1e-5f, const char *what = "");
void expectColor(const miColor &c, float r, float g, float b, float a, float tol = kUlps, const char *what = "");
void expectColor(const miColor &c, const miColor &want, float tol = kUlps, const char *what = "");
/* Red, green and blue only. */
void expectRGB(const miColor &c, float r, float g, float b, float tol = 1e-5f, const char *what = "");

/* The bit pattern of a float, for checks that must hold to the bit. */
uint32_t bitsOf(float f);

#endif
