// nuvrix: the command-line lens report.  Loads a JSON prescription (or the
// built-in Cooke triplet), fills the engine's records as a host does, and
// prints what the engine computes through its exported C interface; the
// subcommand `optimize` runs a damped least-squares optimisation instead, and
// `search` a differential evolution.
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/lens_file.hpp"
#include "tools/report.hpp"

namespace lensfile {
// `nuvrix optimize [options] [lens.json]` (tools/optimize.cpp): the
// arguments after the subcommand; returns the exit status.
int optimize_command(int argc, char** argv);
// `nuvrix search [options] [lens.json]` (tools/search.cpp).
int search_command(int argc, char** argv);
}  // namespace lensfile

namespace {

constexpr int kBadInput = 2;

void usage(std::FILE* to) {
  std::fprintf(to,
               "usage: nuvrix [lens.json]\n"
               "  prints the engine's report for a lens file, or for the built-in Cooke\n"
               "  triplet when no file is given\n"
               "       nuvrix optimize [options] [lens.json]\n"
               "  damped least squares on the lens file's variables (nuvrix optimize --help)\n"
               "       nuvrix search [options] [lens.json]\n"
               "  differential evolution over the lens file's bounded variables, on the device\n"
               "  when one is present (nuvrix search --help)\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && !std::strcmp(argv[1], "optimize"))
    return lensfile::optimize_command(argc - 2, argv + 2);
  if (argc >= 2 && !std::strcmp(argv[1], "search"))
    return lensfile::search_command(argc - 2, argv + 2);
  if (argc > 2) {
    usage(stderr);
    return kBadInput;
  }
  if (argc == 2 && (!std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help"))) {
    usage(stdout);
    return 0;
  }
  lensfile::Lens lens;
  std::string error;
  const bool loaded = argc == 2 ? lensfile::load_lens_file(argv[1], lens, error)
                                : lensfile::build_lens(lensfile::cooke_triplet(), lens, error);
  if (!loaded) {
    std::fprintf(stderr, "nuvrix: %s\n", error.c_str());
    return kBadInput;
  }
  std::printf("nuvrix lens report\n==================\n");
  if (!lensfile::print_identity()) {
    std::printf("  warning: the engine's record layout differs from this host's\n");
  }
  lensfile::print_system(lens);
  lensfile::print_real_rays(lens);
  lensfile::print_aimed_rays(lens);
  lensfile::print_first_order(lens);
  lensfile::print_seidel(lens);
  lensfile::print_focal_shift(lens);
  lensfile::print_solved_semi_diameters(lens);
  lensfile::print_wavefront_quality(lens);
  lensfile::print_diffraction_mtf(lens);
  lensfile::print_zernike(lens);
  lensfile::print_spots(lens);
  lensfile::print_encircled_energy(lens);
  lensfile::print_field_curves(lens);
  lensfile::print_merit(lens);
  lensfile::print_batch(lens);
  lensfile::print_device(lens);
  return 0;
}
