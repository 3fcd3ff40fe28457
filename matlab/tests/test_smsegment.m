function test_smsegment()
%TEST_SMSEGMENT Tests of smsegment, the toolbox-style front of the module.
%   Run with matlab/ and the built modules on the path: prints one line per
%   test and 'N passed, N failed', and exits with status 1 when a test failed.

tests = {@real_image_gives_labels_from_one, @labels_are_the_module_labels_plus_one, ...
         @parameters_by_name_number_and_prefix, @any_numeric_or_logical_class, ...
         @rescale_maps_onto_0_255, @bad_calls_get_their_identifier, ...
         @pad_cuts_the_padded_run_back, @crop_labels_the_centred_box, ...
         @quiet_unless_verbose, @frames_only_when_asked, @meaningless_values_warn_but_run, ...
         @region_list_in_label_order, @rgb_images_are_segmented_as_grey, ...
         @codes_of_a_512_image_are_uint64};
run_test_list(tests);
end

% --- helpers ----------------------------------------------------------------

% Y-by-X(-by-Z) blocks of several grey levels with a little texture.
function img = patchy_image(dims)
if numel(dims) == 2
  dims = [dims, 1];
end
[y, x, z] = ndgrid(0:dims(1) - 1, 0:dims(2) - 1, 0:dims(3) - 1);
patch = mod(floor(x / 4) + 3 * floor(y / 8) + 5 * z, 7);
noise = mod(x * 7 + y * 13 + z * 5, 8);
img = int32(20 + 30 * patch + noise);
end

% The sombrero picture that ships with Octave, as grey levels.
function I = shipped_image()
file = fullfile(OCTAVE_HOME, 'share', 'octave', OCTAVE_VERSION, 'imagelib', ...
                'octave-sombrero.png');
rgb = double(imread(file));
I = uint8(floor((299 * rgb(:, :, 1) + 587 * rgb(:, :, 2) + 114 * rgb(:, :, 3) + 500) / 1000));
end

% The module reads the first dimension as x: it sees I with rows and
% columns swapped. Its outputs are swapped back here.
function varargout = raw_run(img, p)
swap = [2 1 3 4];
evalc('[varargout{1:nargout}] = splitmerge(permute(img, swap), p{:});');
varargout{1} = permute(varargout{1}, swap);
if nargout > 1
  varargout{2} = permute(varargout{2}, swap);
end
end

function p = library_defaults(max_level, lim_oct_level)
p = {max_level, lim_oct_level, 3, 0, 8, 0, 4, 10, 0.1, 5, 3, 2, 30, 1};
end

% --- tests ------------------------------------------------------------------

function real_image_gives_labels_from_one()
I = shipped_image();
[L, n, info] = smsegment(I, 'Fit', 'crop');
check(isa(L, 'double') && isequal(size(L), size(I)), 'L is %s %s', class(L), ...
      mat2str(size(L)));
box = {info.Origin(1):info.Origin(1) + 255, info.Origin(2):info.Origin(2) + 255};
kept = L(box{:});
check(isequal(info.Size, [256 256 1]) && nnz(L) == numel(kept), 'not a 256 x 256 box');
check(min(kept(:)) == 1 && max(kept(:)) == n && numel(unique(kept)) == n, ...
      'labels are not 1..%d', n);
check(n > 10 && n < 5000, '%d regions in a real picture', n);
% Regions are numbered by decreasing size, as the module does.
counts = accumarray(kept(:), 1);
check(all(diff(counts) <= 0), 'regions are not by decreasing size');
if ~isempty(pkg('list', 'image'))
  pkg load image;
  check(isequal(size(label2rgb(L)), [size(I), 3]), 'label2rgb does not take L');
  stats = regionprops(L, 'Area');
  check(numel(stats) == n && isequal([stats.Area]', counts), 'regionprops disagrees');
end
end

function labels_are_the_module_labels_plus_one()
for dims = {[32 32 8], [64 64]}
  img = patchy_image(dims{1});
  raw = raw_run(img, library_defaults(log2(size(img, 2)), log2(size(img, 2) / size(img, 3))));
  kept = img;
  [L, n] = smsegment(img);
  check(isequal(L, double(raw) + 1), '%s: L differs from the module labels + 1', ...
        mat2str(dims{1}));
  check(n == double(max(raw(:))) + 1, 'n is %d', n);
  check(isequal(smsegment(img, 'StartLabel', 0), double(raw)), 'StartLabel 0 differs');
  check(isequal(smsegment(img, 'Start', 7), double(raw) + 7), 'StartLabel 7 differs');
  check(isequal(img, kept), 'the input changed');
end
end

function parameters_by_name_number_and_prefix()
img = patchy_image([32 32 8]);
[~, ~, info] = smsegment(img);
expected = struct('MaxLevel', 5, 'LimOctLevel', 2, 'InitLevel', 3, 'Grouping', 0, ...
                  'MaxSeed', 8, 'UseAllSeeds', 0, 'Predicate', 4, 'IntervalLength', 10, ...
                  'Rejection', 0.1, 'Sigma', 5, 'ThresholdRow', 3, 'PseudoFactor', 2, ...
                  'SmallSize', 30, 'StatisticUpdate', 1);
check(isequal(info.Parameters, expected), 'default parameters differ');
[~, ~, info] = smsegment(patchy_image([4 4]));
check(info.Parameters.InitLevel == 1, 'init level %d', info.Parameters.InitLevel);
names = {'range', 'mean', 'median', 'chi2', 'pseudo'};
for k = 1:5
  by_name = smsegment(img, 'Predicate', names{k}, 'IntervalLength', 25);
  check(isequal(by_name, smsegment(img, 'pred', k, 'intervallength', 25)), ...
        'predicate %s differs from %d', names{k}, k);
end
[~, ~, info] = smsegment(img, 'Predicate', 'RANGE', 'Grouping', 'parallel', 'MaxSeed', 3, ...
                         'UseAll', true, 'StatisticUpdate', false, 'Small', 4, ...
                         'Sig', 2.5, 'Rejection', 0.2, 'PseudoFactor', 1.5, ...
                         'ThresholdRow', 2, 'InitLevel', 1, 'MaxLevel', 5, 'LimOct', 2);
check(isequal(struct2cell(info.Parameters)', {5, 2, 1, 1, 3, 1, 1, 10, 0.2, 2.5, 2, 1.5, 4, 0}), ...
      'parameters are %s', mat2str(cell2mat(struct2cell(info.Parameters))'));
check(~isempty(regexp(info.Version, '^\d+\.\d+\.\d+$', 'once')), 'version %s', ...
      info.Version);
end

function any_numeric_or_logical_class()
img = patchy_image([32 32]);
expected = smsegment(img);
classes = {'uint8', 'uint16', 'int16', 'int64', 'single', 'double'};
for k = 1:numel(classes)
  check(isequal(smsegment(cast(img, classes{k})), expected), '%s differs', classes{k});
end
mask = img > 100;
check(isequal(smsegment(mask), smsegment(int32(mask) * 255)), 'logical is not 0 and 255');
end

function rescale_maps_onto_0_255()
img = double(patchy_image([32 32]));
scaled = smsegment(img / 255, 'Rescale', true, 'Predicate', 'range', 'IntervalLength', 20);
low = min(img(:));
high = max(img(:));
direct = smsegment(round((img - low) * 255 / (high - low)), 'Predicate', 'range', ...
                   'IntervalLength', 20);
check(isequal(scaled, direct), 'Rescale is not a linear map onto 0..255');
[~, ~, info] = smsegment(img * 3, 'Rescale', [1 99]);
check(any(~cellfun(@isempty, strfind(info.Notes, '1st and 99th percentiles'))), ...
      'notes: %s', strjoin(info.Notes, ' | '));
end

% One row per kind of bad call: the identifier, the image and the options.
function bad_calls_get_their_identifier()
img = patchy_image([32 32]);
rows = {'smsegment:imageRange', double(img) + 0.5, {}; 'smsegment:imageRange', double(img) * 2, {}
        'smsegment:imageRange', int16(img) - 100, {}; 'smsegment:imageClass', 'abc', {}
        'smsegment:imageClass', complex(double(img), 1), {}; 'smsegment:imageClass', {}, {}
        'smsegment:imageSize', patchy_image([32 16]), {}; 'smsegment:imageSize', patchy_image([24 24]), {}
        'smsegment:imageSize', patchy_image([1024 1024 2]), {}
        'smsegment:imageSize', patchy_image([16 16 5]), {}
        'smsegment:imageSize', patchy_image([20 5000]), {'Fit', 'pad'}
        'smsegment:imageSize', patchy_image([32 32 3]), {'Volume', true}
        'splitmerge:outOfMemory', img, {'MemoryLimit', 1000}};
bad = {{'Colour', 1}, {'Predicate', 'mode'}, {'Predicate', 6}, {'Fit', 'stretch'}, ...
       {'Sigma', NaN}, {'Sigma', 'big'}, {'MaxSeed', 0, 'Grouping', 'parallel'}, ...
       {'MaxSeed', 2^31}, {'ThresholdRow', 4}, {'InitLevel', 1.5}, {'Frames', 'yes'}, ...
       {'SmallSize', 2.5}, {'Sigma'}, {5, 5}, {'InitLevel', 5}, {'MaxLevel', 6}, ...
       {'S', 1}, {'Rescale', [1 2 3]}};
rows = [rows; repmat({'smsegment:badOption', img}, numel(bad), 1), bad'];
for k = 1:size(rows, 1)
  expect_error(rows{k, 1}, @() smsegment(rows{k, 2}, rows{k, 3}{:}));
end
err = expect_error('smsegment:imageSize', @() smsegment(patchy_image([20 600 5]), 'Fit', 'pad'));
check(~isempty(strfind(err.message, '''Fit'', ''crop'' (or I(:, :, K) for one slice)')), ...
      '%s', err.message);
err = expect_error('smsegment:badOption', @() smsegment(img, 'ThresholdRow', 7));
check(strncmp(err.message, '''ThresholdRow'', 7: must be 1, 2 or 3 ', 37), '%s', err.message);
end

% The run sees I centred in zeros of the next size; L is its labels there.
function pad_cuts_the_padded_run_back()
for c = {{[30 20], [32 32], [2 7], 5}, {[300 300], [512 512], [107 107], 9}}
  [dims, edge, at, level] = c{1}{:};
  img = patchy_image(dims);
  [L, n, info] = smsegment(img, 'Fit', 'pad');
  check(isequal(size(L), dims), 'L is %s', mat2str(size(L)));
  check(isequal(info.Origin, [2 - at, 1]), 'origin %s', mat2str(info.Origin));
  check(isequal(info.Size, [edge 1]) && info.Parameters.MaxLevel == level, 'size %s', ...
        mat2str(info.Size));
  padded = zeros(edge, 'int32');
  padded(at(1):at(1) + dims(1) - 1, at(2):at(2) + dims(2) - 1) = img;
  raw = raw_run(padded, library_defaults(level, level));
  check(isequal(L, double(raw(at(1):at(1) + dims(1) - 1, at(2):at(2) + dims(2) - 1)) + 1), ...
        '%s: pad labels differ from the padded run', mat2str(dims));
  check(n == max(raw(:)) + 1, 'n is %d', n);
end
end

function crop_labels_the_centred_box()
img = patchy_image([40 70 5]);
[L, ~, info] = smsegment(img, 'Fit', 'crop');
check(isequal(size(L), [40 70 5]), 'L is %s', mat2str(size(L)));
check(isequal(info.Origin, [5 20 1]) && isequal(info.Size, [32 32 4]), 'origin %s size %s', ...
      mat2str(info.Origin), mat2str(info.Size));
box = {5:36, 20:51, 1:4};
check(isequal(L(box{:}), smsegment(img(box{:}), 'Volume', true)), ...
      'crop differs from the centred box');
outside = true(size(L));
outside(box{:}) = false;
check(all(L(outside) == 0), 'outside the box is not StartLabel - 1');
L0 = smsegment(img, 'Fit', 'crop', 'StartLabel', 0);
check(all(L0(outside) == -1), 'outside is not -1 with StartLabel 0');
end

function quiet_unless_verbose()
img = patchy_image([32 32 8]);
quiet = evalc('[~, ~, info] = smsegment(img);');
check(isempty(quiet), 'smsegment printed: %s', quiet);
check(numel(info.Lines) > 3, 'no progress lines in info');
p = library_defaults(5, 2);
raw_text = evalc('splitmerge(permute(img, [2 1 3]), p{:});');
loud = evalc('smsegment(img, ''Verbose'', true);');
check(strcmp(loud, raw_text), 'Verbose does not print the module''s lines');
expected = strsplit(raw_text(1:end - 1), sprintf('\n'));  % the text ends with a newline
check(isequal(info.Lines, expected), 'info.Lines differ from the printed lines');
end

function frames_only_when_asked()
img = patchy_image([32 32 8]);
[~, ~, info] = smsegment(img);
check(~isfield(info, 'Frames') && ~isfield(info, 'Regions'), 'frames without asking');
[~, ~, info] = smsegment(img, 'Frames', true);
[~, frames] = raw_run(img, library_defaults(5, 2));
check(isequal(info.Frames, frames), 'frames differ from the module''s');
end

function meaningless_values_warn_but_run()
img = patchy_image([32 32]);
cases = {{'SmallSize', -5}, {'Rejection', 1.5}, {'IntervalLength', -1}, ...
         {'PseudoFactor', -2}, {'Sigma', 0}};
state = warning('off', 'backtrace');
restore = onCleanup(@() warning(state));
for k = 1:numel(cases)
  lastwarn('');
  L = smsegment(img, cases{k}{:});
  [~, id] = lastwarn();
  check(strcmp(id, 'smsegment:outOfRange'), '%s: warning %s', cases{k}{1}, id);
  check(isequal(size(L), [32 32]), '%s: no labels', cases{k}{1});
end
end

function region_list_in_label_order()
img = patchy_image([32 32 8]);
[~, ~, regions] = raw_run(img, library_defaults(5, 2));
[L, n, info] = smsegment(img, 'Regions', true);
check(numel(info.Regions) == n && numel(regions) == n && ~isfield(info, 'Frames'), ...
      'info.Regions has %d entries', numel(info.Regions));
for k = 1:n
  r = info.Regions(k);
  check(isequal(r.Statistics, regions(k).statistics) && isequal(r.Codes, regions(k).codes), ...
        'region %d differs from the module''s', k);
  check(isequal(r.Neighbours, double(regions(k).neighbours) + 1), 'neighbours of %d', k);
  check(isa(r.Statistics, 'int64') && isa(r.Codes, 'uint32') && ~isempty(r.Codes), ...
        'region %d: classes or codes', k);
end
% Regions that touch in L (along any axis) are neighbours in the list.
pairs = zeros(0, 2);
for axis = 1:3
  moved = permute(L, circshift(1:3, [0, 1 - axis]));
  a = moved(1:end - 1, :, :);
  b = moved(2:end, :, :);
  pairs = [pairs; a(a ~= b), b(a ~= b)]; %#ok<AGROW>
end
touching = unique(sort(pairs, 2), 'rows');
for t = 1:size(touching, 1)
  check(any(info.Regions(touching(t, 1)).Neighbours == touching(t, 2)), ...
        'regions %d and %d touch but are not neighbours', touching(t, 1), touching(t, 2));
end
end

function rgb_images_are_segmented_as_grey()
file = fullfile(OCTAVE_HOME, 'share', 'octave', OCTAVE_VERSION, 'imagelib', ...
                'octave-sombrero.png');
rgb = imread(file);
[L, n] = smsegment(rgb, 'Fit', 'crop');
check(isequal(L, smsegment(shipped_image(), 'Fit', 'crop')), 'RGB differs from its grey levels');
check(ismatrix(L) && n > 1, 'L is %s', mat2str(size(L)));
L3 = smsegment(patchy_image([32 32 3]), 'Volume', true, 'Fit', 'crop');
check(isequal(size(L3), [32 32 3]) && all(all(L3(:, :, 3) == 0)), ...
      'a 3-slice volume gives %s', mat2str(size(L3)));
end

% Above 256 pixels along an edge the codes need more than 32 bits: every
% block below the whole image has a digit at level 8.
function codes_of_a_512_image_are_uint64()
img = zeros(512, 512, 'int32');
img(1:256, :) = 80;
img(300:400, 100:450) = 200;
[~, n, info] = smsegment(img, 'Regions', true);
check(numel(info.Regions) == n && n > 1, '%d regions', n);
for k = 1:n
  codes = info.Regions(k).Codes;
  check(isa(codes, 'uint64') && ~isempty(codes) && all(codes >= uint64(2)^32), ...
        'region %d: codes of class %s', k, class(codes));
end
end
