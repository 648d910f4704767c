/*
 * Exported constants, colours, keys, the default light data and the message
 * functions.  Host shader libraries link against these symbols by name, so
 * every value and layout here is fixed.
 */
#include "DruxShaderSDK.h"

extern "C" {

const int KELU_MAGIC = 0x4B656C75; /* 'K' 'e' 'l' 'u', first character high */
const float KELU_EPS = 1e-05f;
const int KELU_CUBE_SIDE = 32;

const int KELU_BIT_BUMP2D = 1;
const int KELU_BIT_IMAGEPLANE = 2;
const int KELU_BIT_ENVLIGHTFOG = 4;
const int KELU_BIT_VOLUMEFOG = 8;
const int KELU_BIT_FLUID = 16;
const int KELU_BIT_NOAF = 32;
const int KELU_BIT_MOTION = 64;
const int miRAY_MRFM_DISPLACE = 66;

const float KELU_LUMINANCE_RED = 0.3f;
const float KELU_LUMINANCE_GREEN = 0.59f;
const float KELU_LUMINANCE_BLUE = 0.11f;
const float TRANSLUCENCE_ANGLE_FAC = -11.5f;
const float TRANSLUCENCE_FADE = 0.15f;

const miColor BLACK = {0.0f, 0.0f, 0.0f, 0.0f};
const miColor WHITE = {1.0f, 1.0f, 1.0f, 1.0f};

const miMatrix KELU_NULL_MATRIX = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const miMatrix KELU_IDENTITY_MATRIX = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

/* Writable copies, filled when the library is loaded (see below). */
miColor KELU_BLACK;
miColor KELU_WHITE;

const char *KELU_FRAMEBUFFER_DATA_SUFFIX = ":fbdata";
const char *PASS_TYPE_INFO_KEY = "druxPassState";
const char *FRAME_BUFFER_INFO_KEY = "druxFBInfo";
const char *FRAME_BUFFER_STATE_KEY = "druxFBState";

/* The colour is filled at load time from KELU_WHITE. */
LightData defaultLightDataArray = {0, 1, 1, 0, {0, 0, 0, 0}, nullptr, {0, 0, 0, 0, 0, 0, 0, 0}};

} /* extern "C" */

namespace {

/* Load-time initialisation: the colour copies first, then the default light
   colour, which reads KELU_WHITE. */
struct LoadTimeInit {
    LoadTimeInit()
    {
        KELU_BLACK = BLACK;
        KELU_WHITE = WHITE;
        defaultLightDataArray.color = KELU_WHITE;
    }
} loadTimeInit;

} // namespace

/* The text goes through "%s" so that a percent sign in it is printed as is. */
extern "C" DRUX_API void druxFatal(const std::string &message)
{
    mi_fatal("%s", message.c_str());
}

extern "C" DRUX_API void druxInfo(const std::string &message)
{
    mi_info("%s", message.c_str());
}

extern "C" DRUX_API void druxWarning(const std::string &message)
{
    mi_warning("%s", message.c_str());
}

extern "C" DRUX_API void druxError(const std::string &message)
{
    mi_error("%s", message.c_str());
}
