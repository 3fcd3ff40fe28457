function test_smsegment()
%TEST_SMSEGMENT Tests of smsegment, the toolbox-style front of the module.
%   Run with matlab/ and the built modules on the path: prints one line per
%   test and 'N passed, N failed', and exits with status 1 when a test failed.
%   That smsegment labels images as the other front ends do (every class,
%   colour, fitting, rescaling) is python/tests/test_interfaces.py.

tests = {@labels_are_the_module_labels_plus_one, ...
         @parameters_by_name_number_and_prefix, @bad_calls_get_their_identifier, ...
         @fit_says_where_the_run_was, @quiet_unless_verbose, @frames_and_regions_when_asked, ...
         @meaningless_values_warn_but_run, @codes_of_a_512_image_are_uint64};
run_test_list(tests);
end

% Y-by-X(-by-Z) blocks of several grey levels with a little texture.
function img = patchy_image(dims)
dims(end + 1:3) = 1;
[y, x, z] = ndgrid(0:dims(1) - 1, 0:dims(2) - 1, 0:dims(3) - 1);
img = int32(20 + 30 * mod(floor(x / 4) + 3 * floor(y / 8) + 5 * z, 7) + mod(x * 7 + y * 13 + z * 5, 8));
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

function labels_are_the_module_labels_plus_one()
for dims = {[32 32 8], [64 64]}
  img = patchy_image(dims{1});
  raw = double(raw_run(img, library_defaults(log2(size(img, 2)), log2(size(img, 2) / size(img, 3)))));
  kept = img;
  [L, n] = smsegment(img);
  check(isequal(L, raw + 1) && n == max(raw(:)) + 1, '%s: L is not the module labels + 1', ...
        mat2str(dims{1}));
  check(isequal(smsegment(img, 'StartLabel', 0), raw), 'StartLabel 0 differs');
  check(isequal(smsegment(img, 'Start', 7), raw + 7), 'StartLabel 7 differs');
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
check(strcmp(info.Version, splitmerge_version()), 'version %s', info.Version);  % CMakeLists.txt's
names = {'range', 'mean', 'median', 'chi2', 'pseudo'};
for k = 1:5
  check(isequal(smsegment(img, 'Predicate', names{k}, 'IntervalLength', 25), ...
                smsegment(img, 'pred', k, 'intervallength', 25)), '%s differs from %d', names{k}, k);
end
[~, ~, info] = smsegment(img, 'Predicate', 'RANGE', 'Grouping', 'parallel', 'MaxSeed', 3, ...
                         'UseAll', true, 'StatisticUpdate', false, 'Small', 4, ...
                         'Sig', 2.5, 'Rejection', 0.2, 'PseudoFactor', 1.5, ...
                         'ThresholdRow', 2, 'InitLevel', 1, 'MaxLevel', 5, 'LimOct', 2);
check(isequal(struct2cell(info.Parameters)', {5, 2, 1, 1, 3, 1, 1, 10, 0.2, 2.5, 2, 1.5, 4, 0}), ...
      'parameters are %s', mat2str(cell2mat(struct2cell(info.Parameters))'));
end

% One row per kind of bad call: the identifier, the image, the options and
% a part of the message.
function bad_calls_get_their_identifier()
img = patchy_image([32 32]);
rows = {'smsegment:imageRange', double(img) + 0.5, {}, 'Rescale'
        'smsegment:imageRange', int16(img) - 100, {}, ''
        'smsegment:imageClass', 'abc', {}, ''
        'smsegment:imageSize', patchy_image([32 16]), {}, ''
        'smsegment:imageSize', patchy_image([32 32 3]), {'Volume', true}, ''
        'smsegment:imageSize', zeros(20, 1100, 5, 'uint8'), {'Fit', 'pad'}, ...
        '''Fit'', ''crop'' (or I(:, :, K) for one slice)'
        'smsegment:badOption', img, {'ThresholdRow', 7}, '''ThresholdRow'', 7: must be 1, 2 or 3 '
        'smsegment:badOption', img, {'Colour', 1}, ''
        'smsegment:badOption', img, {'Predicate', 'mode'}, ''
        'smsegment:badOption', img, {'Fit', 'stretch'}, ''
        'smsegment:badOption', img, {'Sigma', NaN}, ''
        'smsegment:badOption', img, {'MaxSeed', 2^31}, ''
        'smsegment:badOption', img, {'InitLevel', 1.5}, ''
        'smsegment:badOption', img, {'Frames', 'yes'}, ''
        'smsegment:badOption', img, {'Sigma'}, ''
        'smsegment:badOption', img, {5, 5}, ''
        'smsegment:badOption', img, {'S', 1}, ''
        'smsegment:badOption', img, {'Rescale', [1 2 3]}, ''
        'splitmerge:outOfMemory', img, {'MemoryLimit', 1000}, ''};
for k = 1:size(rows, 1)
  err = expect_error(rows{k, 1}, @() smsegment(rows{k, 2}, rows{k, 3}{:}));
  check(isempty(rows{k, 4}) || ~isempty(strfind(err.message, rows{k, 4})), '%s', err.message);
end
end

% Pad: the run sees I centred in zeros of the next size; L is its labels
% there. Crop: the centred box, StartLabel - 1 outside.
function fit_says_where_the_run_was()
img = patchy_image([30 20]);
[L, n, info] = smsegment(img, 'Fit', 'pad');
check(isequal(info.Origin, [0 -5 1]) && isequal(info.Size, [32 32 1]), 'origin %s size %s', ...
      mat2str(info.Origin), mat2str(info.Size));
check(isequal(size(L), [30 20]) && max(L(:)) == n, 'pad gives %s', mat2str(size(L)));
img = patchy_image([40 70 5]);
[L, ~, info] = smsegment(img, 'Fit', 'crop', 'StartLabel', 0);
check(isequal(info.Origin, [5 20 1]) && isequal(info.Size, [32 32 4]), 'origin %s size %s', ...
      mat2str(info.Origin), mat2str(info.Size));
box = {5:36, 20:51, 1:4};
check(isequal(L(box{:}), smsegment(img(box{:}), 'Volume', true, 'StartLabel', 0)), 'crop differs');
L(box{:}) = -1;
check(all(L(:) == -1), 'outside the box is not StartLabel - 1');
end

function quiet_unless_verbose()
img = patchy_image([32 32 8]);
quiet = evalc('[~, ~, info] = smsegment(img);');
check(isempty(quiet), 'smsegment printed: %s', quiet);
p = library_defaults(5, 2);
raw_text = evalc('splitmerge(permute(img, [2 1 3]), p{:});');
loud = evalc('smsegment(img, ''Verbose'', true);');
check(strcmp(loud, raw_text), 'Verbose does not print the module''s lines');
expected = strsplit(raw_text(1:end - 1), sprintf('\n'));  % the text ends with a newline
check(isequal(info.Lines, expected), 'info.Lines differ from the printed lines');
end

function frames_and_regions_when_asked()
img = patchy_image([32 32 8]);
[~, ~, info] = smsegment(img);
check(~isfield(info, 'Frames') && ~isfield(info, 'Regions'), 'frames without asking');
[~, frames, regions] = raw_run(img, library_defaults(5, 2));
[~, n, info] = smsegment(img, 'Frames', true, 'Regions', true);
check(isequal(info.Frames, frames), 'frames differ from the module''s');
check(numel(info.Regions) == n && numel(regions) == n, '%d regions', numel(info.Regions));
for k = 1:n
  r = info.Regions(k);
  check(isequal(r.Statistics, regions(k).statistics) && isequal(r.Codes, regions(k).codes) ...
        && isequal(r.Neighbours, double(regions(k).neighbours) + 1), 'region %d differs', k);
  check(isa(r.Statistics, 'int64') && isa(r.Codes, 'uint32'), 'region %d: classes', k);
end
end

function meaningless_values_warn_but_run()
state = warning('off', 'backtrace');
restore = onCleanup(@() warning(state));
for option = {{'SmallSize', -5}, {'Rejection', 1.5}, {'Sigma', 0}}
  lastwarn('');
  L = smsegment(patchy_image([32 32]), option{1}{:});
  [~, id] = lastwarn();
  check(strcmp(id, 'smsegment:outOfRange') && isequal(size(L), [32 32]), '%s: warning %s', ...
        option{1}{1}, id);
end
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
