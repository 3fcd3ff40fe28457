function test_splitmerge_module(conformance_root)
%TEST_SPLITMERGE_MODULE Tests of the splitmerge module on real host arrays.
%   TEST_SPLITMERGE_MODULE(CONFORMANCE_ROOT) runs every test with the module
%   first on the path, prints one line per test and 'N passed, N failed',
%   and exits with status 1 when a test failed. CONFORMANCE_ROOT holds the
%   reference cases (one folder each with input.npy, params.json, expected/).

% The memory test comes first: what earlier tests leave in the heap would
% blur its measure.
tests = {@memory_stays_flat_over_repeated_calls, @two_dimensional_shapes, ...
         @three_dimensional_shapes, @reference_cases_match_exactly, @fractions_truncate_toward_zero, ...
         @any_numeric_class_is_read_by_value, @one_output_or_none, ...
         @wrong_counts_are_refused, @wrong_images_are_refused, ...
         @parameters_that_are_not_scalars_are_refused, ...
         @values_that_are_not_finite_or_do_not_fit_name_the_input, @logical_flags_are_accepted, ...
         @bad_pixel_is_named_one_based, @largest_seed_count_runs_in_little_memory, ...
         @input_is_left_unchanged, @real_image_of_256_squared, ...
         @parameters_the_library_rejects_are_refused, @module_still_works_after_errors};
run_test_list(tests, conformance_root);
end

% --- helpers ----------------------------------------------------------------

% Flat patches with deterministic noise, as the unit tests use.
function img = patchy_image(dims)
if numel(dims) == 2
  dims = [dims, 1];
end
[x, y, z] = ndgrid(0:dims(1) - 1, 0:dims(2) - 1, 0:dims(3) - 1);
patch = mod(floor(x / 4) + 3 * floor(y / 8) + 5 * z, 7);
noise = mod(x * 7 + y * 13 + z * 5, 8);
img = int32(20 + 30 * patch + noise);
end

% The defaults: a 32 x 32 x 4 run with parallel growing that records several
% frames.
function p = volume_parameters()
p = {5, 3, 0, 1, 9, 0, 5, 30, 0, 2, 1, 1, 0, 1};
end

function p = plane_parameters()
p = {4, 4, 1, 0, 2, 0, 1, 25, 0.1, 4, 2, 1, 2, 0};
end

% Runs with the progress lines captured instead of printed.
function [labels, frames, text] = run_quietly(img, p)
text = evalc('[labels, frames] = splitmerge(img, p{:});');
end

function [a, b, c, d] = four_outputs(img, p) %#ok<STOUT>
[a, b, c, d] = splitmerge(img, p{:});
end

% --- tests ------------------------------------------------------------------

function two_dimensional_shapes(~)
img = patchy_image([16 16]);
[labels, frames] = run_quietly(img, plane_parameters());
check(isa(labels, 'int32') && isa(frames, 'int32'), 'outputs are not int32');
check(isequal(size(labels), [16 16]), 'labels are %s', mat2str(size(labels)));
check(ndims(frames) == 3 && isequal(size(frames, 1), size(frames, 2), 16) ...
      && size(frames, 3) >= 2, 'frames are %s', mat2str(size(frames)));
end

function three_dimensional_shapes(~)
img = patchy_image([32 32 4]);
[labels, frames] = run_quietly(img, volume_parameters());
check(isequal(size(labels), [32 32 4]), 'labels are %s', mat2str(size(labels)));
frame_size = size(frames);
check(ndims(frames) == 4 && isequal(frame_size(1:3), [32 32 4]) && frame_size(4) >= 3, ...
      'frames are %s', mat2str(frame_size));
% Frames are in recording order: the last shows the finished segmentation,
% the first does not.
check(~isequal(frames(:, :, :, 1), frames(:, :, :, end)), 'first and last frame are equal');
end

function reference_cases_match_exactly(conformance_root)
if isempty(conformance_root) || ~exist(conformance_root, 'dir')
  fprintf('      skipped: no reference cases at ''%s''\n', conformance_root);
  return;
end
cases = dir(conformance_root);
checked = 0;
for k = 1:numel(cases)
  folder = fullfile(conformance_root, cases(k).name);
  if ~cases(k).isdir || ~exist(fullfile(folder, 'expected', 'frames.npy'), 'file')
    continue;
  end
  params = jsondecode(fileread(fullfile(folder, 'params.json')));
  if strtrim(fileread(fullfile(folder, 'expected', 'status.txt'))) ~= '0'
    continue;
  end
  img = read_npy(fullfile(folder, 'input.npy'));
  p = {params.max_level, params.lim_oct_level, params.init_level, params.group_mode, ...
       params.max_seed, params.use_all_seeds, params.pred_choice, params.interval_length, ...
       params.rejection, params.sigma, params.threshold_row, params.pseudo_factor, ...
       params.small_size, params.statistic_update};
  [labels, frames, text] = run_quietly(img, p);
  expected = fullfile(folder, 'expected');
  check(isequal(labels, read_npy(fullfile(expected, 'labels.npy'))), '%s: labels differ', ...
        cases(k).name);
  check(isequal(frames, read_npy(fullfile(expected, 'frames.npy'))), '%s: frames differ', ...
        cases(k).name);
  % The module never writes a region list file; where the case saved one,
  % the run says instead that it did not.
  printed = strrep(fileread(fullfile(expected, 'stdout.txt')), ...
                   sprintf('file = regions.txt \nfinished save_regionlist \n'), ...
                   sprintf('No save_regionlist specified\n'));
  check(strcmp(text, printed), '%s: printed lines differ:\n%s', cases(k).name, text);
  checked = checked + 1;
end
check(checked > 0, 'no reference case with frames under %s', conformance_root);
fprintf('      %d reference cases\n', checked);
end

function fractions_truncate_toward_zero(~)
img = patchy_image([32 32 4]);
whole = {5, 3, 1, 0, 9, 0, 5, 30, 0.256, 2.5, 1, 1.25, 2, 1};
fractional = {5.9, 3.2, 1.9, -0.5, 9.99, 0.7, 5.5, 30.7, 0.256, 2.5, 1.5, 1.25, 2.9, 1.1};
[l1, f1, t1] = run_quietly(img, whole);
[l2, f2, t2] = run_quietly(img, fractional);
check(isequal(l1, l2) && isequal(f1, f2) && strcmp(t1, t2), 'fractional parameters differ');
end

function any_numeric_class_is_read_by_value(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
typed = p;
typed{1} = int8(5);
typed{2} = uint16(3);
typed{4} = int64(1);
typed{5} = uint8(9);
typed{8} = single(30.75);
typed{10} = int32(2);
[l1, f1] = run_quietly(img, p);
[l2, f2] = run_quietly(img, typed);
check(isequal(l1, l2) && isequal(f1, f2), 'typed parameters differ');
end

function one_output_or_none(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
[expected, ~] = run_quietly(img, p);
printed = evalc('labels = splitmerge(img, p{:});'); %#ok<NASGU>
check(isequal(labels, expected), 'one output differs');
% With no output the labels go to ans (capturing keeps evalc's text out of it).
printed = evalc('splitmerge(img, p{:});'); %#ok<NASGU>
check(isequal(ans, expected), 'ans differs'); %#ok<NOANS>
end

function wrong_counts_are_refused(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
expect_error('splitmerge:nargin', @() splitmerge());
expect_error('splitmerge:nargin', @() splitmerge(img));
expect_error('splitmerge:nargin', @() splitmerge(img, p{1:13}));
expect_error('splitmerge:nargin', @() splitmerge(img, p{:}, 1));
expect_error('splitmerge:nargout', @() four_outputs(img, p));
end

function wrong_images_are_refused(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
for wrong = {double(img), uint8(img), single(img), img > 100, char(img), int16(img)}
  expect_error('splitmerge:imageClass', @() splitmerge(wrong{1}, p{:}));
end
expect_error('splitmerge:imageDims', @() splitmerge(zeros(32, 32, 2, 2, 'int32'), p{:}));
expect_error('splitmerge:imageDims', @() splitmerge(zeros(32, 32, 4, 1, 2, 'int32'), p{:}));
end

function parameters_that_are_not_scalars_are_refused(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
flags = [4, 6, 14];  % group_mode, use_all_seeds, statistic_update take logicals
for slot = 1:14
  wrong = {[5 5], [], 'a', 1 + 2i, {5}, struct('v', 5)};
  if ~any(slot == flags)
    wrong{end + 1} = true;
  end
  for w = wrong
    q = p;
    q{slot} = w{1};
    expect_error('splitmerge:notScalar', @() splitmerge(img, q{:}));
  end
end
end

function values_that_are_not_finite_or_do_not_fit_name_the_input(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
names = {'max_level', 'lim_oct_level', 'init_level', 'group_mode', 'max_seed', ...
         'use_all_seeds', 'pred_choice', 'interval_length', 'rejection', 'sigma', ...
         'threshold_row', 'pseudo_factor', 'small_size', 'statistic_update'};
real_slots = [9, 10, 12];
for slot = 1:14
  wrong = {NaN, Inf, -Inf};
  if ~any(slot == real_slots)
    wrong = [wrong, {2^31, -2^31 - 1}];
  end
  for w = wrong
    q = p;
    q{slot} = w{1};
    err = expect_error('splitmerge:badParameter', @() splitmerge(img, q{:}));
    named = sprintf('%s (input %d)', names{slot}, slot + 1);
    check(~isempty(strfind(err.message, named)), 'message does not name %s: %s', named, ...
          err.message);
  end
end
end

function logical_flags_are_accepted(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
q = p;
q{4} = true;
q{6} = false;
q{14} = true;
[l1, f1] = run_quietly(img, p);
[l2, f2] = run_quietly(img, q);
check(isequal(l1, l2) && isequal(f1, f2), 'logical flags give other results');
end

function bad_pixel_is_named_one_based(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
bad = img;
bad(1000) = 300;
[r, c, s] = ind2sub(size(bad), 1000);
err = expect_error('splitmerge:badParameter', @() splitmerge(bad, p{:}));
where = sprintf('(%d, %d, %d) (linear index 1000) is 300', r, c, s);
check(~isempty(strfind(err.message, where)), 'message does not say %s: %s', where, err.message);
end

function parameters_the_library_rejects_are_refused(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
changes = {{1, 9}, {1, 4}, {2, 2}, {3, 5}, {7, 6}, {5, 0}, {10, NaN}, {9, Inf}, ...
           {12, -Inf}, {1, 2147483647.9}, {1, -2147483648.9}, {9, 3e7}};
for c = changes
  q = p;
  q{c{1}{1}} = c{1}{2};
  expect_error('splitmerge:badParameter', @() splitmerge(img, q{:}));
end
q = p;
q{7} = 4;
q{11} = 0;
expect_error('splitmerge:badParameter', @() splitmerge(img, q{:}));
for pixel = [256, -1]
  bad = img;
  bad(1234) = pixel;
  expect_error('splitmerge:badParameter', @() splitmerge(bad, p{:}));
end
expect_error('splitmerge:badParameter', @() splitmerge(patchy_image([32 16 4]), p{:}));
end

function module_still_works_after_errors(~)
img = patchy_image([32 32 4]);
[labels, frames] = run_quietly(img, volume_parameters());
check(isequal(size(labels), [32 32 4]) && size(frames, 4) >= 3, 'a valid call failed');
end

function largest_seed_count_runs_in_little_memory(~)
% A seed table of 2^31 - 1 slots would take 8 GB; the run has at most as
% many seeds as regions.
img = patchy_image([256 256]);
p = {8, 8, 3, 1, 2^31 - 1, 0, 4, 10, 0.1, 5, 3, 2, 30, 1};
before = resident_kb('VmHWM');
[labels, ~, ~] = run_quietly(img, p);
grown = resident_kb('VmHWM') - before;
check(grown < 200 * 1024, 'peak memory grew by %d MB', round(grown / 1024));
p{5} = 1e6;
[expected, ~, ~] = run_quietly(img, p);
check(isequal(labels, expected), 'labels differ from a run with 10^6 seeds');
end

function input_is_left_unchanged(~)
img = patchy_image([32 32 4]);
kept = img;
run_quietly(img, volume_parameters());
p = volume_parameters();
printed = evalc('labels = splitmerge(img, p{:});'); %#ok<NASGU>
check(isequal(img, kept), 'the input changed');
end

% The sombrero picture that ships with Octave: a real 256 x 256 grey image.
function real_image_of_256_squared(~)
file = fullfile(OCTAVE_HOME, 'share', 'octave', OCTAVE_VERSION, 'imagelib', ...
                'octave-sombrero.png');
rgb = double(imread(file));
grey = int32(round(0.299 * rgb(:, :, 1) + 0.587 * rgb(:, :, 2) + 0.114 * rgb(:, :, 3)));
img = grey(16:271, 117:372);
p = {8, 8, 3, 0, 8, 0, 4, 10, 0.1, 5, 3, 2, 30, 1};
[labels, frames, text] = run_quietly(img, p);
n = double(max(labels(:))) + 1;
check(n > 10 && isequal(unique(labels(:))', int32(0:n - 1)), 'labels are not 0..n-1');
check(size(frames, 3) >= 2 && isequal(frames(:, :, 1) > 0, true(256)), 'first frame');
check(~isempty(strfind(text, 'regions')) || numel(text) > 100, 'no progress lines');
one = evalc('single_output = splitmerge(img, p{:});'); %#ok<NASGU>
check(isequal(single_output, labels) && strcmp(one, text), 'one output differs from two');
end

% The previous gateway leaked every frame's pixels: the resident size after
% many calls must stay where it was after the first ones.
function memory_stays_flat_over_repeated_calls(~)
img = patchy_image([32 32 32]);
p = {5, 0, 3, 0, 8, 0, 4, 10, 0.1, 5, 3, 2, 30, 1};
[~, frames] = run_quietly(img, p);
frame_mb = numel(frames) * 4 / 2^20;
clear frames;
for k = 1:60
  if k == 21
    settled = resident_kb('VmRSS');  % after the heap has settled
  end
  [labels, frames] = run_quietly(img, p); %#ok<ASGLU>
  clear labels frames;
  printed = evalc('labels = splitmerge(img, p{:});'); %#ok<NASGU>
  clear labels;
end
grown = (resident_kb('VmRSS') - settled) / 1024;
fprintf('      resident size grew by %.1f MB over 40 calls (%.1f MB of frames each)\n', grown, ...
        frame_mb);
% Leaking one frame (0.125 MB) per call would add 5 MB, all frames 360 MB.
check(grown < 2, 'resident size grew by %.1f MB over 40 calls', grown);
end

function kb = resident_kb(field)
text = fileread('/proc/self/status');
value = regexp(text, [field ':\s*(\d+)'], 'tokens', 'once');
kb = str2double(value{1});
end
