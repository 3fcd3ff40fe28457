function [L, n, info] = smsegment(I, varargin)
%SMSEGMENT Split-and-merge segmentation of a grey image or volume.
%   L = SMSEGMENT(I) divides the 2-D image or 3-D volume I into regions that
%   are homogeneous under a statistical test and returns the label matrix L:
%   double, the size of I (of its grey image for a colour I), 1 for the
%   largest region, 2 for the next, and so on by decreasing size, as BWLABEL
%   and WATERSHED number regions (so LABEL2RGB and REGIONPROPS take L as it
%   is). Rows of I are y and columns x, as IMREAD gives a picture, so
%   SMSEGMENT(IMREAD(F)) equals the labels of the command line's
%   "splitmerge F --labels L.npy" pixel for pixel.
%
%   [L, N] = SMSEGMENT(I) also returns N, the number of regions of the run.
%   [L, N, INFO] = SMSEGMENT(I) also returns a struct: INFO.Lines, the
%   progress lines of the run (cell array of char); INFO.Notes, what was
%   changed on the way (colour, rescaling, fitting); INFO.Parameters, every
%   parameter as the run used it, the levels included (MaxLevel,
%   LimOctLevel, InitLevel, ...); INFO.Origin and INFO.Size, the image that
%   was segmented, in I's (row, column, slice): its first pixel (1-based;
%   less than 1 after padding) and its size; INFO.Version, the version of
%   splitmerge; with 'Frames', true, INFO.Frames, and with 'Regions', true,
%   INFO.Regions (see below).
%
%   The run covers the image with square blocks of 2^InitLevel pixels,
%   merges homogeneous sibling blocks into larger ones, splits
%   inhomogeneous ones, grows regions from adjacent similar blocks and lets
%   regions below SmallSize pixels be absorbed by their most similar
%   neighbour.
%
%   I may be of any real numeric class (uint8, uint16, int8..int64, single,
%   double) or logical. Its values must be whole numbers from 0 to 255
%   unless 'Rescale' is true; a logical image is read as 0 and 255. Y-by-X
%   images and Y-by-X-by-Z volumes are segmented as they are when X = Y is a
%   power of two from 2 to 16384 (to 1024 when Z > 1) and Z a power of two no
%   larger than X; otherwise set 'Fit'. A Y-by-X-by-3 (or 4) array with more
%   than 4 columns is an RGB (RGBA) image, segmented as its grey levels
%   (299 R + 587 G + 114 B) / 1000, rounded for whole-number samples; with
%   the option 'Volume' it is a volume of 3 or 4 slices.
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
%                     MaxLevel - 1. Default min(3, MaxLevel - 1).
%   'MaxLevel'        The segmented image's edge is 2^MaxLevel. Default:
%                     from the image.
%   'LimOctLevel'     A volume has 2^(MaxLevel - LimOctLevel) slices.
%                     Default: from the image.
%   'Fit'             'none': I must have a size the run takes (see above);
%                     'pad': I is padded with 0 around it (centred) up to the
%                     next such size, at most 16384 (1024 for more than one
%                     slice); 'crop': the centred box of the largest such
%                     size that fits is segmented, and the pixels outside it
%                     get StartLabel - 1 in L. Either way L has the size of
%                     I. Default 'none'.
%   'Rescale'         true: the value range of I is mapped linearly onto
%                     0..255 (rounded); [LOW HIGH]: the window between those
%                     percentiles of the values, clipped outside. Default
%                     false.
%   'StartLabel'      The label of the largest region; 0 numbers the regions
%                     from 0, as the SPLITMERGE module does. Default 1.
%   'MemoryLimit'     The run's memory budget in bytes, or 0: the memory
%                     available less a margin (splitmerge:outOfMemory when
%                     the run would cross it). Default 0.
%   'Frames'          true: INFO.Frames holds the display frames, int32, the
%                     size of L plus one dimension (-1 outside a crop),
%                     one frame per index of the last dimension. Frame 1 colours
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
%                     Neighbours are in L's numbering.
%                     Default false.
%   'Verbose'         true: the progress lines are printed as the run goes.
%                     Default false.
%   'Volume'          true: a Y-by-X-by-3 (or 4) array is a volume of 3
%                     (4) slices, not an RGB (RGBA) image. Default false.
%
%   Values outside the ranges above are passed on (the run defines a
%   result for them) with the warning smsegment:outOfRange. Option names
%   may be shortened to any unique beginning ('Sig' for 'Sigma').
%
%   Errors: smsegment:badOption (an unknown option, a value of the wrong
%   kind or one the run cannot take), smsegment:imageClass (not a real numeric or logical array),
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
if ~exist('smsegment_mex', 'file')
  error('splitmerge:notBuilt', 'the smsegment_mex module is not built: run BUILD_SPLITMERGE');
end
call = struct('max_level', opts.MaxLevel, 'lim_oct_level', opts.LimOctLevel, ...
              'init_level', opts.InitLevel, 'group_mode', opts.Grouping, ...
              'max_seed', opts.MaxSeed, 'use_all_seeds', opts.UseAllSeeds, ...
              'pred_choice', opts.Predicate, 'interval_length', opts.IntervalLength, ...
              'rejection', opts.Rejection, 'sigma', opts.Sigma, ...
              'threshold_row', opts.ThresholdRow, 'pseudo_factor', opts.PseudoFactor, ...
              'small_size', opts.SmallSize, 'statistic_update', opts.StatisticUpdate, ...
              'fit', opts.Fit, 'rescale', opts.Rescale(1), 'low', opts.Rescale(2), ...
              'high', opts.Rescale(3), 'volume', opts.Volume, ...
              'start_label', opts.StartLabel, 'frames', opts.Frames || opts.Regions, ...
              'regions', opts.Regions, 'verbose', opts.Verbose, ...
              'memory_limit', opts.MemoryLimit);
if nargout > 2
  [L, n, info] = run_gateway(I, call);
  if opts.Regions
    raw = info.Regions;
    info.Regions = struct('Statistics', {raw.statistics}, 'Codes', {raw.codes}, ...
                          'Neighbours', cellfun(@(n) double(n) + opts.StartLabel, ...
                                                {raw.neighbours}, 'UniformOutput', false));
  end
  if ~opts.Frames
    info = rmfield(info, 'Frames');
  end
  if ~opts.Regions
    info = rmfield(info, 'Regions');
  end
else
  [L, n] = run_gateway(I, call);
end
end

% The gateway's errors as smsegment's own, without Octave's 'smsegment_mex: '.
function varargout = run_gateway(I, call)
try
  [varargout{1:nargout}] = smsegment_mex(I, call);
catch err
  error(err.identifier, '%s', regexprep(err.message, '^smsegment_mex: ', ''));
end
end

% --- options -----------------------------------------------------------------

function opts = parse_options(args)
% -1: the level is taken from the image.
opts = struct('Predicate', 4, 'IntervalLength', 10, 'Rejection', 0.1, 'Sigma', 5, ...
              'ThresholdRow', 3, 'PseudoFactor', 2, 'SmallSize', 30, ...
              'StatisticUpdate', true, 'Grouping', 'sequential', 'MaxSeed', 8, ...
              'UseAllSeeds', false, 'InitLevel', -1, 'MaxLevel', -1, 'LimOctLevel', -1, ...
              'Fit', 'none', 'Rescale', false, 'StartLabel', 1, 'MemoryLimit', 0, ...
              'Frames', false, 'Regions', false, 'Verbose', false, 'Volume', false);
names = fieldnames(opts);
if mod(numel(args), 2) ~= 0
  error('smsegment:badOption', 'options come in name-value pairs');
end
for k = 1:2:numel(args)
  name = option_name(args{k}, names);
  opts.(name) = check_option(name, args{k + 1});
end
opts.Grouping = double(strcmp(opts.Grouping, 'parallel'));
opts.Fit = find(strcmp(opts.Fit, {'none', 'pad', 'crop'})) - 1;
if isscalar(opts.Rescale)
  opts.Rescale = [double(opts.Rescale), 0, 100];
else
  opts.Rescale = [1, double(opts.Rescale(:)')];
end
end

% The option a name (or a unique beginning of one) means, case aside.
function name = option_name(given, names)
if ~ischar(given) || isempty(given)
  error('smsegment:badOption', 'unknown option %s; the options are %s', describe(given), ...
        strjoin(names', ', '));
end
matches = strcmpi(given, names);
if ~any(matches)
  matches = strncmpi(given, names, numel(given));
end
if sum(matches) ~= 1
  kinds = {'unknown', 'ambiguous'};
  error('smsegment:badOption', '%s option %s; the options are %s', ...
        kinds{1 + any(matches)}, describe(given), strjoin(names', ', '));
end
name = names{matches};
end

function value = check_option(name, value)
switch name
  case 'Predicate'
    predicates = {'range', 'mean', 'median', 'chi2', 'pseudo'};
    if ischar(value) && any(strcmpi(value, predicates))
      value = find(strcmpi(value, predicates));
    elseif ~is_whole_scalar(value)
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
  case {'StatisticUpdate', 'UseAllSeeds', 'Frames', 'Regions', 'Verbose', 'Volume'}
    if ~(is_real_scalar(value) || (islogical(value) && isscalar(value)))
      error('smsegment:badOption', '%s must be true or false', name);
    end
    value = logical(value);
  case 'Rescale'
    window = isnumeric(value) && isreal(value) && numel(value) == 2 && all(isfinite(value));
    if ~(window || is_real_scalar(value) || (islogical(value) && isscalar(value)))
      error('smsegment:badOption', 'Rescale must be true, false or [LOW HIGH] percentiles');
    end
    if ~window
      value = logical(value);
    end
  case {'InitLevel', 'MaxLevel', 'LimOctLevel', 'ThresholdRow', 'MaxSeed', 'IntervalLength', ...
        'SmallSize', 'StartLabel'}
    if ~is_whole_scalar(value)
      error('smsegment:badOption', '%s must be a whole number', name);
    end
  case 'MemoryLimit'
    if ~(is_real_scalar(value) && value >= 0)
      error('smsegment:badOption', 'MemoryLimit must be 0 or more bytes');
    end
  otherwise  % Rejection, Sigma, PseudoFactor
    if ~is_real_scalar(value)
      error('smsegment:badOption', '%s must be a finite real number', name);
    end
end
if isnumeric(value) || islogical(value)
  value = double(value);
end
end

function ok = is_real_scalar(value)
ok = isnumeric(value) && isreal(value) && isscalar(value) && isfinite(value);
end

function ok = is_whole_scalar(value)
ok = is_real_scalar(value) && value == fix(value) && abs(value) < 2^31;
end

function text = describe(value)
if ischar(value)
  text = ['''' value ''''];
else
  text = sprintf('of class %s', class(value));
end
end
