/* A C host of the installed engine: its version, its layout report, and
 * the focal length of a thick singlet against the lensmaker's formula. */
#include <math.h>
#include <nuvrix.h>
#include <stdio.h>
#include <string.h>

int main(void) {
  SurfaceData s[4];
  double const index[4] = {1.0, 1.5168, 1.0, 1.0};
  double const c1 = 1.0 / 40.0, c2 = -1.0 / 60.0, t = 6.0, n = 1.5168;
  int32_t abi[12];
  memset(s, 0, sizeof s);
  s[0].thickness = 1e10;
  s[1].curvature = c1, s[1].thickness = t;
  s[2].curvature = c2, s[2].thickness = 50.0;
  nuvrix_merit_abi_info(abi);
  double const power = (n - 1.0) * (c1 - c2) + (n - 1.0) * (n - 1.0) * t * c1 * c2 / n;
  double const efl = nuvrix_calculate_efl(s, 4, index);
  printf("C host: version %s, SurfaceData %d bytes, EFL %.9f (lensmaker %.9f)\n",
         nuvrix_version(), abi[6], efl, 1.0 / power);
  return strcmp(nuvrix_version(), "0.1.0") == 0 && abi[6] == 200 &&
                 fabs(efl - 1.0 / power) < 1e-9 * fabs(efl)
             ? 0
             : 1;
}
