## Octave's quadtree decomposition (octave-image) on a 2-D benchmark image,
## as a peer of the split phase: a block is split while its grey range
## exceeds 10 (threshold 10/255 on uint8), down to single pixels.
##   octave-cli --quiet --no-init-file qtdecomp_peer.m IMAGE.npy NAME REPS
## Prints one JSON line like the C++ benchmark programs.
1;

function image = read_npy_int32 (path)
  fid = fopen (path, "r", "ieee-le");
  magic = fread (fid, 8, "uint8=>char")';
  if (! strcmp (magic(2:6), "NUMPY"))
    error ("%s: not a .npy file", path);
  endif
  header_size = fread (fid, 1, "uint16");
  header = fread (fid, header_size, "uint8=>char")';
  if (isempty (strfind (header, "'<i4'")))
    error ("%s: expected int32 values", path);
  endif
  shape = str2num (regexp (header, "\\(([^)]*)\\)", "tokens", "once"){1});
  values = fread (fid, prod (shape), "int32=>double");
  fclose (fid);
  ## C order, x fastest: Octave's column-major reshape gives (x, y); transpose to rows y.
  image = reshape (values, shape(2), shape(1))';
endfunction

function bytes = status_bytes (field)
  status = fileread ("/proc/self/status");
  kilobytes = str2double (regexp (status, [field ":\\s*(\\d+)"], "tokens", "once"){1});
  bytes = kilobytes * 1024;
endfunction

args = argv ();
path = args{1};
name = args{2};
reps = str2double (args{3});
pkg load image
image = uint8 (read_npy_int32 (path));
baseline = status_bytes ("VmRSS");
times = zeros (reps, 1);
for r = 1:reps
  start = tic ();
  S = qtdecomp (image, 10 / 255);
  times(r) = toc (start);
endfor
t = median (times);
printf (["{\"kind\": \"peer\", \"peer\": \"Octave qtdecomp\", \"name\": \"%s\", \"voxels\": %d, ", ...
         "\"repetitions\": %d, \"median_s\": %.6g, \"mvoxels_per_s\": %.6g, \"blocks\": %d, ", ...
         "\"peak_rss_bytes\": %d, \"baseline_rss_bytes\": %d}\n"], ...
        name, numel (image), reps, t, numel (image) / t / 1e6, nnz (S), ...
        status_bytes ("VmHWM"), baseline);
