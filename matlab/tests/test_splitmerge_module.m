function test_splitmerge_module(conformance_root)
%TEST_SPLITMERGE_MODULE Tests of the splitmerge module on real host arrays.
%   TEST_SPLITMERGE_MODULE(CONFORMANCE_ROOT) runs every test with the module
%   first on the path, prints one line per test and 'N passed, N failed',
%   and exits with status 1 when a test failed. CONFORMANCE_ROOT holds the
%   reference cases (one folder each with input.npy, params.json, expected/).
%   How each argument is read is the fake host's test (tests/gateway); here
%   the real host's arrays, outputs and errors.

% The memory test comes first: what earlier tests leave in the heap would
% blur its measure.
tests = {@memory_stays_flat_over_repeated_calls, @reference_cases_match_exactly, ...
         @other_spellings_of_the_same_call, @one_output_or_none_and_input_unchanged, ...
         @every_error_identifier_reaches_the_host};
run_test_list(tests, conformance_root);
end

% Flat patches with deterministic noise, as the unit tests use.
function img = patchy_image(dims)
if numel(dims) == 2
  dims = [dims, 1];
end
[x, y, z] = ndgrid(0:dims(1) - 1, 0:dims(2) - 1, 0:dims(3) - 1);
img = int32(20 + 30 * mod(floor(x / 4) + 3 * floor(y / 8) + 5 * z, 7) + mod(x * 7 + y * 13 + z * 5, 8));
end

% A 32 x 32 x 4 run with parallel growing that records several frames.
function p = volume_parameters()
p = {5, 3, 0, 1, 9, 0, 5, 30, 0, 2, 1, 1, 0, 1};
end

% Runs with the progress lines captured instead of printed.
function [labels, frames, text] = run_quietly(img, p)
text = evalc('[labels, frames] = splitmerge(img, p{:});');
end

function [a, b, c, d] = four_outputs(img, p) %#ok<STOUT>
[a, b, c, d] = splitmerge(img, p{:});
end

function reference_cases_match_exactly(conformance_root)
checked = 0;
cases = dir(conformance_root);
for k = 1:numel(cases)
  folder = fullfile(conformance_root, cases(k).name);
  expected = fullfile(folder, 'expected');
  if ~exist(fullfile(expected, 'frames.npy'), 'file') ...
      || ~strcmp(strtrim(fileread(fullfile(expected, 'status.txt'))), '0')
    continue;
  end
  c = jsondecode(fileread(fullfile(folder, 'params.json')));
  p = {c.max_level, c.lim_oct_level, c.init_level, c.group_mode, c.max_seed, ...
       c.use_all_seeds, c.pred_choice, c.interval_length, c.rejection, c.sigma, ...
       c.threshold_row, c.pseudo_factor, c.small_size, c.statistic_update};
  [labels, frames, text] = run_quietly(read_npy(fullfile(folder, 'input.npy')), p);
  % The module never writes a region list file; where the case saved one,
  % the run says instead that it did not.
  printed = strrep(fileread(fullfile(expected, 'stdout.txt')), ...
                   sprintf('file = regions.txt \nfinished save_regionlist \n'), ...
                   sprintf('No save_regionlist specified\n'));
  check(isa(labels, 'int32') && isa(frames, 'int32') ...
        && isequal(labels, read_npy(fullfile(expected, 'labels.npy'))) ...
        && isequal(frames, read_npy(fullfile(expected, 'frames.npy'))) ...
        && strcmp(text, printed), '%s differs', cases(k).name);
  checked = checked + 1;
end
check(checked > 0, 'no reference case with frames under %s', conformance_root);
fprintf('      %d reference cases\n', checked);
end

% Any numeric class is read by value and flags take logicals (fractions
% truncating toward zero: the fake host's argument table): each row changes
% the default call and runs the same.
function other_spellings_of_the_same_call(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
[l0, f0, t0] = run_quietly(img, p);
rows = {{1, int8(5), 2, uint16(3), 4, int64(1), 5, uint8(9), 8, single(30.75), 10, int32(2)}, ...
        {4, true, 6, false, 14, true}};
for r = 1:numel(rows)
  q = p;
  q(cell2mat(rows{r}(1:2:end))) = rows{r}(2:2:end);
  [l, f, t] = run_quietly(img, q);
  check(isequal(l, l0) && isequal(f, f0) && strcmp(t, t0), 'row %d runs differently', r);
end
end

function one_output_or_none_and_input_unchanged(~)
img = patchy_image([32 32 4]);
kept = img;
p = volume_parameters();
[expected, ~, text] = run_quietly(img, p);
printed = evalc('labels = splitmerge(img, p{:});');
check(isequal(labels, expected) && strcmp(printed, text), 'one output differs');
% With no output the labels go to ans (capturing keeps evalc's text out of it).
printed = evalc('splitmerge(img, p{:});'); %#ok<NASGU>
check(isequal(ans, expected), 'ans differs'); %#ok<NOANS>
check(isequal(img, kept), 'the input changed');
end

% One row per identifier; the fake host's tests go through every slot.
function every_error_identifier_reaches_the_host(~)
img = patchy_image([32 32 4]);
p = volume_parameters();
bad = img;
bad(1000) = 300;
[r, c, s] = ind2sub(size(bad), 1000);
rows = {'splitmerge:nargin', {img, p{1:13}}, '14 parameters'; ...
        'splitmerge:imageClass', [{double(img)}, p], 'int32(img)'; ...
        'splitmerge:imageDims', [{zeros(32, 32, 2, 2, 'int32')}, p], '3-D'; ...
        'splitmerge:notScalar', [{img}, p(1:8), {[5 5]}, p(10:14)], 'rejection (input 10)'; ...
        'splitmerge:badParameter', [{img}, p(1:9), {NaN}, p(11:14)], 'sigma (input 11)'; ...
        'splitmerge:badParameter', [{bad}, p], sprintf('(%d, %d, %d) (linear index 1000) is 300', r, c, s)};
for k = 1:size(rows, 1)
  args = rows{k, 2};
  err = expect_error(rows{k, 1}, @() splitmerge(args{:}));
  check(~isempty(strfind(err.message, rows{k, 3})), '%s: %s', rows{k, 1}, err.message);
end
expect_error('splitmerge:nargout', @() four_outputs(img, p));
[labels, frames] = run_quietly(img, p);
check(isequal(size(labels), [32 32 4]) && size(frames, 4) >= 3, 'no valid call after errors');
end

% The resident size after many calls must stay where it was after the
% first ones: a leak of every frame's pixels once went unnoticed.
function memory_stays_flat_over_repeated_calls(~)
img = patchy_image([32 32 32]);
p = {5, 0, 3, 0, 8, 0, 4, 10, 0.1, 5, 3, 2, 30, 1};
frame_kb = numel(img) * 4 / 1024;
for k = 1:60
  if k == 21
    settled = resident_kb();  % after the heap has settled
  end
  [labels, frames] = run_quietly(img, p); %#ok<ASGLU>
  clear labels frames;
end
grown = resident_kb() - settled;
fprintf('      resident size grew by %.0f kB over 40 calls\n', grown);
% Leaking one frame per call would add 40 frames.
check(grown < 20 * frame_kb, 'resident size grew by %.0f kB (a frame is %.0f kB)', grown, frame_kb);
end

function kb = resident_kb()
value = regexp(fileread('/proc/self/status'), 'VmRSS:\s*(\d+)', 'tokens', 'once');
kb = str2double(value{1});
end
