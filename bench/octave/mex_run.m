function mex_run(module_dir, image_file, outputs, repetitions)
%MEX_RUN Times calls of the splitmerge module in this Octave process.
%   MEX_RUN(MODULE_DIR, IMAGE_FILE, OUTPUTS, REPETITIONS) loads the int32
%   .npy image, runs the module REPETITIONS times with OUTPUTS outputs (1:
%   labels, 2: labels and frames) and the standard parameters, and prints one
%   line: outputs, median and best seconds, the process's peak resident
%   memory, its resident memory before the first call, the size of the
%   frames (0 with one output), the number of regions (one output) and the
%   median processor time of the calls.
addpath(module_dir);
addpath(fullfile(fileparts(mfilename('fullpath')), '..', '..', 'matlab', 'tests'));
img = read_npy(image_file);
max_level = log2(size(img, 1));
lim_oct_level = max_level - log2(size(img, 3));
p = {max_level, lim_oct_level, 3, 0, 8, 0, 4, 10, 0.1, 5, 3, 2, 30, 1};
before = resident_kb('VmRSS');
times = zeros(1, repetitions);
cpu = zeros(1, repetitions);
frame_bytes = 0;
regions = 0;
for k = 1:repetitions
  if outputs == 1
    tic;
    t0 = cputime();
    evalc('labels = splitmerge(img, p{:});');
    cpu(k) = cputime() - t0;
    times(k) = toc;
    regions = double(max(labels(:))) + 1;
  else
    tic;
    t0 = cputime();
    evalc('[labels, frames] = splitmerge(img, p{:});');
    cpu(k) = cputime() - t0;
    times(k) = toc;
    frame_bytes = numel(frames) * 4;
    clear frames;
  end
  clear labels;
end
fprintf(['outputs %d median_s %.3f best_s %.3f peak_mb %.1f before_mb %.1f frames_mb %.1f ' ...
         'regions %d cpu_s %.3f\n'], outputs, median(times), min(times), ...
        resident_kb('VmHWM') / 1024, before / 1024, frame_bytes / 2^20, regions, median(cpu));
end

function kb = resident_kb(field)
text = fileread('/proc/self/status');
kb = str2double(regexp(text, [field ':\s*(\d+)'], 'tokens', 'once'){1});
end
