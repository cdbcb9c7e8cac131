// Wavefront map, FFT PSF, FFT MTF (one wavelength, polychromatic, over
// field), Zernike fit and diffraction encircled energy.
#include "fuzz/fuzz_args.hpp"

using namespace nuvrix_fuzz;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Reader in(data, size);
  uint8_t const op = in.u8() % kWavefrontOpCount;
  WavefrontArgs a;
  a.visit(in);
  System sys = read_system(in);
  SurfaceData const* s = sys.surfaces.data();
  int32_t const n = sys.surface_count;
  Buf<double> row = sys.row(a.row), primary = sys.row(a.primary_row);
  FieldData const* fields = sys.fields.data();
  int32_t const fc = sys.field_count;

  switch (op) {
    case kWavefrontMap: {
      int32_t const g = a.grid_size;  // any sign: the map holds grid_size^2 entries
      Buf<double> map(squared(g));
      Buf<int32_t> mask(squared(g));
      WavefrontResult r{};
      keep(nuvrix_compute_wavefront_map(s, n, row.data(), primary.data(), a.wavelength, &sys.config,
                                        fields, fc, a.field_index, g, a.reference_radius,
                                        map.data(), mask.data(), &r));
      break;
    }
    case kFftPsf:
    case kFftMtf: {
      // A power of two, as the transform needs; the MTF also takes 0 (no samples).
      int32_t const g = op == kFftPsf ? fft_grid(a.grid_size, 6) : fft_grid_or_zero(a.grid_size, 6);
      long long const padded = squared(2 * g);
      Buf<double> map(squared(g)), real(padded), imag(padded);
      Buf<int32_t> mask(squared(g));
      if (op == kFftPsf) {
        Buf<double> psf(padded);
        FftPsfResult r{};
        keep(nuvrix_compute_fft_psf(s, n, row.data(), primary.data(), a.wavelength, &sys.config,
                                    fields, fc, a.field_index, g, a.reference_radius, a.f_number,
                                    map.data(), mask.data(), real.data(), imag.data(), psf.data(),
                                    &r));
      } else {
        Buf<FftMtfPoint> points(a.capacity);
        FftMtfResult r{};
        int32_t const status = nuvrix_compute_fft_mtf(
            s, n, row.data(), primary.data(), a.wavelength, &sys.config, fields, fc, a.field_index,
            g, a.reference_radius, a.tangential_cutoff, a.sagittal_cutoff, a.frequency_step,
            map.data(), mask.data(), real.data(), imag.data(), points.data(), a.capacity, &r);
        if (status == 0 && (r.point_count < 0 || r.point_count > std::max(a.capacity, 0)))
          std::abort();
      }
      break;
    }
    case kFftMtfPolychromatic: {
      int32_t const g = fft_grid_or_zero(a.grid_size, 5);
      long long const padded = squared(2 * g);
      long long const maps = product(sys.wavelength_count, squared(g));
      Buf<double> map(maps), real(padded), imag(padded), acc_re(padded), acc_im(padded);
      Buf<int32_t> mask(maps);
      Buf<FftMtfPoint> points(a.capacity);
      FftMtfResult r{};
      int32_t const status = nuvrix_compute_fft_mtf_polychromatic(
          s, n, sys.table.data(), primary.data(), sys.wavelengths.data(), sys.wavelength_count,
          sys.weights.data(), &sys.config, fields, fc, a.field_index, g, a.reference_radius,
          a.tangential_cutoff, a.sagittal_cutoff, a.f_number, a.frequency_step, map.data(),
          mask.data(), real.data(), imag.data(), acc_re.data(), acc_im.data(), points.data(),
          a.capacity, &r);
      if (status == 0 && (r.point_count < 0 || r.point_count > std::max(a.capacity, 0)))
        std::abort();
      break;
    }
    case kFftMtfVsField: {
      int32_t const g = fft_grid_or_zero(a.grid_size, 5);
      long long const padded = squared(2 * g);
      Buf<double> map(squared(g)), real(padded), imag(padded);
      Buf<int32_t> mask(squared(g));
      Buf<double> frequencies = read_doubles(in, a.frequency_count);
      Buf<double> fractions = read_doubles(in, a.scan_field_count);
      Buf<MtfVsFieldPoint> points(product(a.frequency_count, a.scan_field_count));
      MtfVsFieldResult r{};
      keep(nuvrix_compute_fft_mtf_vs_field(
          s, n, row.data(), primary.data(), a.wavelength, &sys.config,
          a.null_fields ? nullptr : fields, a.unused_count, g, a.reference_radius,
          frequencies.data(), a.frequency_count, fractions.data(), a.scan_field_count,
          a.field_scale, map.data(), mask.data(), real.data(), imag.data(), points.data(), &r));
      break;
    }
    case kZernike: {
      int32_t const g = a.grid_size;
      Buf<double> map(squared(g));
      Buf<int32_t> mask(squared(g));
      ZernikeResult r{};
      int32_t const status = nuvrix_compute_zernike_standard(
          s, n, row.data(), primary.data(), a.wavelength, &sys.config, fields, fc, a.field_index, g,
          a.reference_radius, a.term_count, map.data(), mask.data(), &r);
      if ((status == 0 || status == -1) && r.term_count > 37) std::abort();
      break;
    }
    case kDiffractionEncircledEnergy: {
      // A PSF of grid_size^2 pixels from the input (the system is not used).
      int32_t const g = a.grid_size;
      Buf<double> psf = read_doubles(in, squared(g));
      Buf<EncircledEnergyPoint> points(a.point_count + 1LL);
      EncircledEnergyResultHeader h{};
      keep(nuvrix_compute_diffraction_encircled_energy(psf.data(), g, a.pixel_pitch, a.max_radius,
                                                       a.point_count, points.data(), &h));
      break;
    }
  }
  return 0;
}
