function varargout = splitmerge(varargin)
%SPLITMERGE Split-and-merge segmentation of a 2-D or 3-D grey image.
%   [LABELS, FRAMES, REGIONS] = SPLITMERGE(IMAGE, MAX_LEVEL, LIM_OCT_LEVEL,
%       INIT_LEVEL, GROUP_MODE, MAX_SEED, USE_ALL_SEEDS, PRED_CHOICE,
%       INTERVAL_LENGTH, REJECTION, SIGMA, THRESHOLD_ROW, PSEUDO_FACTOR,
%       SMALL_SIZE, STATISTIC_UPDATE)
%
%   Covers the image with blocks of level INIT_LEVEL, merges homogeneous
%   sibling blocks upward, splits inhomogeneous ones downward, grows regions
%   from adjacent blocks, absorbs regions below SMALL_SIZE pixels and labels
%   the regions. The progress lines are printed in the command window.
%   SMSEGMENT offers the same with name-value options and defaults.
%
%   IMAGE            int32 array, X-by-Y (2-D) or X-by-Y-by-Z (3-D), grey
%                    values 0 to 255 (use int32(img); rescale other ranges).
%                    X = Y = 2^MAX_LEVEL pixels, Z = 2^(MAX_LEVEL -
%                    LIM_OCT_LEVEL) slices (1 for a 2-D image).
%   MAX_LEVEL        level of the whole image, 1 to 14 (edge 2 to 16384
%                    pixels); 1 to 10 in a volume (edge 2 to 1024).
%   LIM_OCT_LEVEL    lowest level whose blocks are divided in z too, 0 to
%                    MAX_LEVEL; MAX_LEVEL for a 2-D image.
%   INIT_LEVEL       level of the initial blocks (edge 2^INIT_LEVEL pixels),
%                    0 to MAX_LEVEL - 1.
%   GROUP_MODE       0: sequential region growing; otherwise seeded parallel
%                    growing.
%   MAX_SEED         parallel growing: number of seed regions, at least 1.
%   USE_ALL_SEEDS    parallel growing: non-zero takes seeds of any block size,
%                    0 only the largest blocks.
%   PRED_CHOICE      homogeneity predicate: 1 range, 2 range then region
%                    means, 3 median interval with outlier share, 4 variance
%                    against chi-square thresholds, 5 variance against
%                    pseudo-variance thresholds.
%   INTERVAL_LENGTH  grey levels: largest range (predicates 1 to 3) or
%                    difference of region means (2, 4, 5).
%   REJECTION        predicate 3: largest share of outliers, a fraction
%                    (0.1 = 10 %); finite.
%   SIGMA            predicates 4, 5: expected standard deviation of the
%                    noise, in grey levels; finite.
%   THRESHOLD_ROW    predicate 4: 1, 2 or 3 for the 0.50, 0.75 or 0.90
%                    chi-square quantile.
%   PSEUDO_FACTOR    predicate 5: factor f of the threshold
%                    SIGMA^2 * (1 + f / sqrt(n)) for n pixels; finite.
%   SMALL_SIZE       regions below this many pixels are absorbed by their
%                    most similar neighbour; 0 switches this off.
%   STATISTIC_UPDATE non-zero: an absorbing region takes in the small
%                    region's statistics.
%
%   Every parameter is a real numeric scalar of any class; GROUP_MODE,
%   USE_ALL_SEEDS and STATISTIC_UPDATE also take true or false. All but
%   REJECTION, SIGMA and PSEUDO_FACTOR are whole numbers: fractions are
%   truncated toward zero (2.9 becomes 2, -0.5 becomes 0). NaN, Inf and
%   whole numbers outside -2^31..2^31-1 are refused. Every value the run
%   defines a result for is accepted, also outside the meaningful ranges:
%   INTERVAL_LENGTH, SMALL_SIZE and PSEUDO_FACTOR 0 or more, REJECTION 0 to
%   1, SIGMA more than 0 (SMSEGMENT warns outside them).
%
%   LABELS  int32, the size of IMAGE: the region of each pixel, 0 for the
%           largest region, 1 for the next, and so on by decreasing size
%           (add 1 for LABEL2RGB or REGIONPROPS, or use SMSEGMENT).
%   FRAMES  int32, the size of IMAGE plus one dimension: the segmentation as
%           it progresses, one frame per index of the last dimension, in
%           recording order (X-by-Y-by-F or X-by-Y-by-Z-by-F). Frame 1
%           colours the initial blocks by their place among their siblings
%           (1 to 4 in an image, 1 to 8 in a volume); the merge and split
%           paint each new block with that place number, the grouping
%           paints regions in colour numbers of its own; the last frame is
%           the final partition in those colour numbers, which are not the
%           LABELS. A frame is taken every 1001 paint operations.
%
%   REGIONS struct array, one element per label in label order: statistics
%           (int64 1-by-2, the region's two statistics, whose meaning
%           depends on PRED_CHOICE), codes (the locational codes of its
%           blocks: uint32 for an edge of up to 256 pixels, uint64 above) and neighbours (int32, the labels of the regions next
%           to it; the list may name the region itself). Asking for it
%           records the frames too.
%
%   With one output (or none) no frames are recorded: the run is as fast
%   and as small as one without display, and LABELS and the printed lines
%   are the same as with two outputs. Every call prints its progress lines
%   in the command window (use evalc to keep them, or SMSEGMENT, which is
%   quiet). Ctrl-C stops a running call: everything is released and the
%   error splitmerge:interrupted is raised.
%
%   Errors:
%     splitmerge:nargin        not 15 inputs
%     splitmerge:nargout       more than 3 outputs
%     splitmerge:imageClass    IMAGE is not a real int32 array
%     splitmerge:imageDims     IMAGE is not 2-D or 3-D
%     splitmerge:notScalar     a parameter is not a real numeric scalar (or
%                              logical, for the three flags)
%     splitmerge:badParameter  a parameter is NaN, Inf, does not fit a
%                              32-bit integer, or breaks a rule of the run
%                              (the message names it, its value and what is
%                              allowed), or a pixel lies outside 0 to 255
%                              (named by its 1-based row, column and slice)
%     splitmerge:outOfMemory   the run or its outputs ran out of memory
%     splitmerge:interrupted   stopped with Ctrl-C
%     splitmerge:runFailed     the run ended with another failure status
%     splitmerge:internal      an unexpected failure inside the module
%     splitmerge:notBuilt      the module is not built (this file answered)
%     splitmerge:buildFailed   BUILD_SPLITMERGE could not build it
%   Warning splitmerge:frameBudget: the frames would exceed 2 GiB; the first
%   frames are kept and the last one returned shows the final state. LABELS
%   are complete all the same.
%
%   Example: a 64-by-64 image of two halves with noise, chi-square predicate.
%       img = int32([60 * ones(64, 32), 180 * ones(64, 32)] + ...
%                   round(4 * randn(64, 64)));
%       [labels, frames] = splitmerge(img, 6, 6, 2, 0, 1, 0, 4, 20, ...
%                                     0.1, 5, 3, 2, 30, 1);
%       imagesc(labels); axis image;          % two regions, labels 0 and 1
%       size(frames)                          % 64 64 F
%
%   Build the module once with build_splitmerge (MATLAB: mex, Octave:
%   mkoctfile --mex). SPLITMERGE_VERSION returns the version.
%
%   See also SMSEGMENT, BUILD_SPLITMERGE, SPLITMERGE_VERSION.

error('splitmerge:notBuilt', ...
      'The splitmerge module is not built: run build_splitmerge in %s', ...
      fileparts(mfilename('fullpath')));
end
