/* The public header must stay valid C: this file is compiled by the C
 * compiler and its layout checks run from a C++ test. */
#include <stddef.h>

#include "api/nuvrix.h"

int nuvrix_c_layout(int which) {
  switch (which) {
    case 0: return (int)sizeof(SurfaceData);
    case 1: return (int)sizeof(SystemConfig);
    case 2: return (int)sizeof(FieldData);
    case 3: return (int)sizeof(RayTraceResult);
    case 4: return (int)offsetof(SurfaceData, focal_length);
    case 5: return (int)offsetof(RayTraceResult, violation);
    case 6: return (int)offsetof(MeritOperandDesc, reserved_double);
    default: return -1;
  }
}

double nuvrix_c_trace_y(void) {
  SurfaceData s[3] = {{0}};
  double const idx[3] = {1.0, 1.0, 1.0};
  s[0].thickness = 10.0;
  s[1].thickness = 10.0;
  return nuvrix_trace_ray(s, 3, idx, 1, 0, 0.0, 0.0, 0.0, 0.6, 0.8, 0.0).y;
}
