function [L, n, info] = smsegment(I, varargin)
%SMSEGMENT Split-and-merge segmentation of a grey image or volume.
%   L = SMSEGMENT(I) divides the 2-D image or 3-D volume I into regions that
%   are homogeneous under a statistical test and returns the label matrix L:
%   double, the size of I, 1 for the largest region, 2 for the next, and so
%   on by decreasing size, as BWLABEL and WATERSHED number regions (so
%   LABEL2RGB and REGIONPROPS take L as it is).
%
%   [L, N] = SMSEGMENT(I) also returns N, the number of regions.
%   [L, N, INFO] = SMSEGMENT(I) also returns a struct: INFO.Lines, the
%   progress lines of the run (cell array of char); INFO.Levels, the levels
%   used (MaxLevel, LimOctLevel, InitLevel); INFO.Parameters, the 14 values
%   passed to the SPLITMERGE module; INFO.Origin and INFO.Size, the part of
%   I that L covers (its first pixel, 1-based, and its size: all of I
%   unless 'Fit' is 'crop'); with 'Frames', true, INFO.Frames, and with
%   'Regions', true, INFO.Regions (see below).
%
%   The run covers the image with square blocks of 2^InitLevel pixels,
%   merges homogeneous sibling blocks into larger ones, splits
%   inhomogeneous ones, grows regions from adjacent similar blocks and lets
%   regions below SmallSize pixels be absorbed by their most similar
%   neighbour.
%
%   I may be of any real numeric class (uint8, uint16, int8..int64, single,
%   double) or logical. Its values must be whole numbers from 0 to 255
%   unless 'Rescale' is true; a logical image is read as 0 and 255. X-by-Y
%   images and X-by-Y-by-Z volumes are segmented as they are when X = Y is a
%   power of two from 2 to 4096 (to 512 when Z > 1) and Z a power of two no
%   larger than X; otherwise set 'Fit'. An X-by-Y-by-3 array is taken for an RGB image and
%   segmented as its grey levels, round(0.299 R + 0.587 G + 0.114 B), unless
%   'Volume' is true.
%
%   Options, as name-value pairs (names are not case sensitive):
%
%   'Predicate'       The homogeneity test: 'range' (1): the values of a
%                     block span at most IntervalLength; 'mean' (2): range,
%                     and regions join when their means differ by at most
%                     IntervalLength; 'median' (3): at most a share
%                     Rejection of the values lies further than
%                     IntervalLength/2 from the median; 'chi2' (4): the
%                     variance passes a chi-square test against Sigma^2;
%                     'pseudo' (5): the variance is below
%                     Sigma^2 * (1 + PseudoFactor / sqrt(pixels)).
%                     Default 'chi2'.
%   'IntervalLength'  Grey levels, 0 or more: the largest range (range,
%                     mean, median) or the largest difference of region
%                     means (mean, chi2, pseudo). Default 10.
%   'Rejection'       median: the largest share of outliers, 0 to 1.
%                     Default 0.1.
%   'Sigma'           chi2, pseudo: the standard deviation of the noise, in
%                     grey levels, more than 0. Default 5.
%   'ThresholdRow'    chi2: 1, 2 or 3 for the 0.50, 0.75 or 0.90 quantile.
%                     Default 3.
%   'PseudoFactor'    pseudo: the factor f above, 0 or more. Default 2.
%   'SmallSize'       Regions below this many pixels are absorbed by their
%                     most similar neighbour; 0 keeps every region. 0 or
%                     more. Default 30.
%   'StatisticUpdate' true: a region that absorbs a small one takes in its
%                     statistics. Default true.
%   'Grouping'        'sequential' grows one region at a time; 'parallel'
%                     grows from MaxSeed seed regions at once. Default
%                     'sequential'.
%   'MaxSeed'         parallel: the number of seed regions, 1 or more.
%                     Default 8.
%   'UseAllSeeds'     parallel: true takes seeds among blocks of any size,
%                     false only among the largest. Default false.
%   'InitLevel'       The initial blocks are 2^InitLevel pixels wide, 0 to
%                     log2(edge) - 1. Default min(3, log2(edge) - 1).
%   'Fit'             'none': I must have a size the run takes (see above);
%                     'pad': I is padded with 0 around it (centred) up to the
%                     next such size, at most 4096 (512 for more than one
%                     slice), and L has the size of I; 'crop': the centred
%                     box of the largest such size that fits is segmented,
%                     and L has the size of that box (INFO.Origin says where
%                     it lies). Default 'none'.
%   'Rescale'         true: the value range of I is mapped linearly onto
%                     0..255 (rounded). Default false.
%   'ZeroBased'       true: L numbers the regions from 0, as the SPLITMERGE
%                     module does. Default false.
%   'Frames'          true: INFO.Frames holds the display frames, int32, the
%                     size of the segmented image (padded or cropped) plus
%                     one dimension, one
%                     frame per index of the last dimension. Frame 1 colours
%                     the initial blocks by their place among their siblings
%                     (1 to 4, or 1 to 8 in a volume); later frames show
%                     blocks and regions as they are made, in colour numbers
%                     of the run's own; the last frame shows the final
%                     regions in those colour numbers, which are not the
%                     labels. Frames take memory: 4 bytes per pixel per
%                     frame, at most 2 GiB (warning splitmerge:frameBudget).
%                     Default false.
%   'Regions'         true: INFO.Regions holds the run's region list, one
%                     struct per label of L, in label order: Statistics (the
%                     region's two statistics, int64, whose meaning depends
%                     on the predicate), Codes (the locational codes of its
%                     blocks: uint32 for an edge of up to 256 pixels, uint64
%                     above) and Neighbours (the labels of the
%                     regions next to it, in L's numbering; the run's list
%                     may name the region itself). The run then records
%                     frames too, which costs their time and memory.
%                     Default false.
%   'Verbose'         true: the progress lines are printed as the run goes.
%                     Default false.
%   'Volume'          true: an X-by-Y-by-3 array is a volume of 3 slices,
%                     not an RGB image. Default false.
%
%   Values outside the ranges above are passed on (the run defines a
%   result for them) with the warning smsegment:outOfRange.
%
%   Errors: smsegment:badOption (an unknown option or a value of the wrong
%   kind), smsegment:imageClass (not a real numeric or logical array),
%   smsegment:imageRange (values that are not whole numbers 0 to 255, use
%   'Rescale'), smsegment:imageSize (a size the run does not take, use
%   'Fit'), and those of the SPLITMERGE module: splitmerge:interrupted
%   (Ctrl-C), splitmerge:outOfMemory, splitmerge:notBuilt (run
%   BUILD_SPLITMERGE first).
%
%   Example: segment an image that ships with Octave or MATLAB.
%       if exist('OCTAVE_VERSION', 'builtin')
%         pkg load image                            % label2rgb
%         file = fullfile(OCTAVE_HOME, 'share', 'octave', OCTAVE_VERSION, ...
%                         'imagelib', 'octave-sombrero.png');
%       else
%         file = 'ngc6543a.jpg';
%       end
%       I = imread(file);                         % RGB: segmented as grey
%       [L, n] = smsegment(I, 'Fit', 'crop', 'Sigma', 8);
%       imshow(label2rgb(L))
%       title(sprintf('%d regions', n))
%
%   See also SPLITMERGE, BUILD_SPLITMERGE, LABEL2RGB, REGIONPROPS.

opts = parse_options(varargin);
if ndims(I) == 3 && size(I, 3) == 3 && ~opts.Volume && (isnumeric(I) || islogical(I)) ...
    && isreal(I)
  I = luma(I);
end
pixels = grey_values(I, opts.Rescale);
[pixels, origin, box] = fit_image(pixels, opts.Fit);

max_level = round(log2(size(pixels, 1)));
lim_oct_level = max_level - round(log2(size(pixels, 3)));
init_level = opts.InitLevel;
if isempty(init_level)
  init_level = min(3, max_level - 1);
end
group_mode = double(strcmp(opts.Grouping, 'parallel'));
p = {max_level, lim_oct_level, init_level, group_mode, opts.MaxSeed, ...
     double(opts.UseAllSeeds), opts.Predicate, opts.IntervalLength, opts.Rejection, ...
     opts.Sigma, opts.ThresholdRow, opts.PseudoFactor, opts.SmallSize, ...
     double(opts.StatisticUpdate)};

if opts.Regions
  text = evalc('[labels, frames, regions] = splitmerge(pixels, p{:});');
elseif opts.Frames
  text = evalc('[labels, frames] = splitmerge(pixels, p{:});');
else
  text = evalc('labels = splitmerge(pixels, p{:});');
end
if opts.Verbose
  fprintf('%s', text);
end

labels = labels(origin.inner{:});
kept = 0:double(max(labels(:)));  % the run's label of each label in L
if strcmp(opts.Fit, 'pad')
  % The padding may have held regions of its own: number what is left
  % consecutively, in the run's order (by decreasing size).
  [kept, ~, renumbered] = unique(double(labels(:)));
  kept = kept';
  labels = reshape(renumbered - 1, size(labels));
end
n = double(max(labels(:))) + 1;
L = double(labels) + double(~opts.ZeroBased);

if nargout > 2
  info = struct();
  info.Lines = regexp(text, '[^\n]+', 'match');
  info.Levels = struct('MaxLevel', max_level, 'LimOctLevel', lim_oct_level, ...
                       'InitLevel', init_level);
  info.Parameters = cell2mat(p);
  info.Origin = origin.first;
  info.Size = box;
  if opts.Frames
    info.Frames = frames;
  end
  if opts.Regions
    info.Regions = region_list(regions, kept, ~opts.ZeroBased);
  end
end
end

% The module's region list for the regions in L, with neighbours in L's
% numbering.
function list = region_list(regions, kept, first)
to_label = zeros(1, numel(regions));
to_label(kept + 1) = (0:numel(kept) - 1) + first;
list = struct('Statistics', {}, 'Codes', {}, 'Neighbours', {});
for k = 1:numel(kept)
  region = regions(kept(k) + 1);
  neighbours = double(region.neighbours);
  neighbours = to_label(neighbours + 1);
  kept_neighbours = neighbours(neighbours >= first);
  list(k).Statistics = region.statistics;
  list(k).Codes = region.codes;
  list(k).Neighbours = kept_neighbours;
end
end

% --- options -----------------------------------------------------------------

function opts = parse_options(args)
opts = struct('Predicate', 4, 'IntervalLength', 10, 'Rejection', 0.1, 'Sigma', 5, ...
              'ThresholdRow', 3, 'PseudoFactor', 2, 'SmallSize', 30, ...
              'StatisticUpdate', true, 'Grouping', 'sequential', 'MaxSeed', 8, ...
              'UseAllSeeds', false, 'InitLevel', [], 'Fit', 'none', 'Rescale', false, ...
              'ZeroBased', false, 'Frames', false, 'Regions', false, 'Verbose', false, ...
              'Volume', false);
names = fieldnames(opts);
if mod(numel(args), 2) ~= 0
  error('smsegment:badOption', 'options come in name-value pairs');
end
for k = 1:2:numel(args)
  name = args{k};
  if ~ischar(name) || ~any(strcmpi(name, names))
    error('smsegment:badOption', 'unknown option %s; the options are %s', ...
          describe(name), strjoin(names', ', '));
  end
  name = names{strcmpi(name, names)};
  opts.(name) = check_option(name, args{k + 1});
end
warn_outside('IntervalLength', opts.IntervalLength, 0, Inf);
warn_outside('Rejection', opts.Rejection, 0, 1);
warn_outside('PseudoFactor', opts.PseudoFactor, 0, Inf);
warn_outside('SmallSize', opts.SmallSize, 0, Inf);
if opts.Sigma <= 0
  warning('smsegment:outOfRange', 'Sigma = %g: meaningful values are more than 0', opts.Sigma);
end
end

function value = check_option(name, value)
switch name
  case 'Predicate'
    predicates = {'range', 'mean', 'median', 'chi2', 'pseudo'};
    if ischar(value) && any(strcmpi(value, predicates))
      value = find(strcmpi(value, predicates));
    elseif ~(is_real_scalar(value) && any(value == 1:5))
      error('smsegment:badOption', ['Predicate must be ''range'', ''mean'', ''median'', ' ...
                                    '''chi2'', ''pseudo'' or 1 to 5']);
    end
  case {'Grouping', 'Fit'}
    choices = struct('Grouping', {{'sequential', 'parallel'}}, 'Fit', {{'none', 'pad', 'crop'}});
    allowed = choices.(name);
    if ~ischar(value) || ~any(strcmpi(value, allowed))
      error('smsegment:badOption', '%s must be ''%s''', name, strjoin(allowed, ''', '''));
    end
    value = lower(value);
  case {'StatisticUpdate', 'UseAllSeeds', 'Rescale', 'ZeroBased', 'Frames', 'Regions', ...
        'Verbose', 'Volume'}
    if ~(is_real_scalar(value) || (islogical(value) && isscalar(value)))
      error('smsegment:badOption', '%s must be true or false', name);
    end
    value = logical(value);
  case 'InitLevel'
    if ~(is_real_scalar(value) && value == fix(value) && value >= 0)
      error('smsegment:badOption', 'InitLevel must be a whole number, 0 or more');
    end
  case {'ThresholdRow'}
    if ~(is_real_scalar(value) && any(value == 1:3))
      error('smsegment:badOption', 'ThresholdRow must be 1, 2 or 3');
    end
  case {'MaxSeed'}
    if ~(is_real_scalar(value) && value == fix(value) && value >= 1 && value < 2^31)
      error('smsegment:badOption', 'MaxSeed must be a whole number from 1 to 2^31 - 1');
    end
  case {'IntervalLength', 'SmallSize'}
    if ~(is_real_scalar(value) && value == fix(value) && abs(value) < 2^31)
      error('smsegment:badOption', '%s must be a whole number', name);
    end
  otherwise  % Rejection, Sigma, PseudoFactor
    if ~is_real_scalar(value)
      error('smsegment:badOption', '%s must be a finite real number', name);
    end
end
if isnumeric(value)
  value = double(value);
end
end

function ok = is_real_scalar(value)
ok = isnumeric(value) && isreal(value) && isscalar(value) && isfinite(value);
end

function warn_outside(name, value, low, high)
if value < low || value > high
  warning('smsegment:outOfRange', '%s = %g: meaningful values are %g to %g', name, value, ...
          low, high);
end
end

function text = describe(value)
if ischar(value)
  text = ['''' value ''''];
else
  text = sprintf('of class %s', class(value));
end
end

% --- the image -----------------------------------------------------------------

function grey = luma(rgb)
values = double(rgb);
grey = round(0.299 * values(:, :, 1) + 0.587 * values(:, :, 2) + 0.114 * values(:, :, 3));
end

function pixels = grey_values(I, rescale)
if ~(isnumeric(I) || islogical(I)) || ~isreal(I) || isempty(I) || ndims(I) > 3
  error('smsegment:imageClass', ['I must be a non-empty real numeric or logical 2-D ' ...
                                 'image or 3-D volume, not %s'], class(I));
end
if islogical(I)
  pixels = int32(I) * 255;
  return;
end
if rescale
  values = double(I);
  if any(~isfinite(values(:)))
    error('smsegment:imageRange', 'I holds NaN or Inf values, which cannot be rescaled');
  end
  low = min(values(:));
  high = max(values(:));
  if high > low
    pixels = int32(round((values - low) * (255 / (high - low))));
  else
    pixels = zeros(size(I), 'int32');
  end
  return;
end
if isinteger(I)
  outside = I < 0 | I > 255;
else
  outside = ~(I >= 0 & I <= 255 & I == fix(I));
end
if any(outside(:))
  bad = find(outside, 1);
  error('smsegment:imageRange', ['I(%d) = %g: pixel values must be whole numbers from 0 to ' ...
                                 '255; use ''Rescale'', true'], bad, double(I(bad)));
end
pixels = int32(I);
end

function [pixels, origin, box] = fit_image(pixels, fit)
sizes = [size(pixels, 1), size(pixels, 2), size(pixels, 3)];
origin.first = [1, 1, 1];
origin.inner = {':', ':', ':'};
box = sizes;
if takes_size(sizes)
  return;
end
switch fit
  case 'none'
    error('smsegment:imageSize', ['I is %s: the run takes square slices of 2, 4, ..., 4096 ' ...
                                  'pixels (512 with more than one slice) and a power-of-two ' ...
                                  'slice count no larger than the edge; use ''Fit'', ''pad'' ' ...
                                  'or ''Fit'', ''crop'''], size_text(sizes));
  case 'pad'
    edge = max(2, 2^ceil(log2(max(sizes))));
    depth = 2^ceil(log2(sizes(3)));
    if edge > largest_edge(depth)
      error('smsegment:imageSize', ['I is %s: padding would need an edge of %d, more than ' ...
                                    '%d; use ''Fit'', ''crop'''], size_text(sizes), edge, ...
            largest_edge(depth));
    end
    target = [edge, edge, depth];
    first = floor((target - sizes) / 2) + 1;
    padded = zeros(target, 'int32');
    padded(first(1):first(1) + sizes(1) - 1, first(2):first(2) + sizes(2) - 1, ...
           first(3):first(3) + sizes(3) - 1) = pixels;
    pixels = padded;
    % The labels are cut back to I.
    origin.inner = {first(1):first(1) + sizes(1) - 1, first(2):first(2) + sizes(2) - 1, ...
                    first(3):first(3) + sizes(3) - 1};
  case 'crop'
    % A crop keeps two slices or more of an I that has two or more.
    edge = min(largest_edge(sizes(3)), 2^floor(log2(min(sizes(1:2)))));
    depth = min(edge, 2^floor(log2(sizes(3))));
    if edge < 2
      error('smsegment:imageSize', 'I is %s: too small to crop to 2-by-2', size_text(sizes));
    end
    box = [edge, edge, depth];
    first = floor((sizes - box) / 2) + 1;
    pixels = pixels(first(1):first(1) + edge - 1, first(2):first(2) + edge - 1, ...
                    first(3):first(3) + depth - 1);
    origin.first = first;
end
end

function ok = takes_size(sizes)
edge = sizes(1);
ok = edge == sizes(2) && edge >= 2 && edge <= largest_edge(sizes(3)) ...
     && is_power_of_two(edge) ...
     && is_power_of_two(sizes(3)) && sizes(3) <= edge;
end

% The run takes 2-D images of up to 4096 pixels along an edge, volumes of
% more than one slice up to 512.
function edge = largest_edge(slices)
if slices > 1
  edge = 512;
else
  edge = 4096;
end
end

function ok = is_power_of_two(v)
ok = v >= 1 && 2^round(log2(v)) == v;
end

function text = size_text(sizes)
if sizes(3) == 1
  text = sprintf('%d-by-%d', sizes(1), sizes(2));
else
  text = sprintf('%d-by-%d-by-%d', sizes);
end
end
