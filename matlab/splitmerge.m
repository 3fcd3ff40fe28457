function varargout = splitmerge(varargin)
%SPLITMERGE Split-and-merge segmentation of a 2-D or 3-D grey image.
%   [LABELS, FRAMES] = SPLITMERGE(IMAGE, MAX_LEVEL, LIM_OCT_LEVEL, INIT_LEVEL,
%       GROUP_MODE, MAX_SEED, USE_ALL_SEEDS, PRED_CHOICE, INTERVAL_LENGTH,
%       REJECTION, SIGMA, THRESHOLD_ROW, PSEUDO_FACTOR, SMALL_SIZE,
%       STATISTIC_UPDATE)
%
%   Covers the image with blocks of level INIT_LEVEL, merges homogeneous
%   sibling blocks upward, splits inhomogeneous ones downward, grows regions
%   from adjacent blocks, absorbs regions below SMALL_SIZE pixels and labels
%   the regions. The progress lines are printed in the command window.
%
%   IMAGE            int32 array, X-by-Y (2-D) or X-by-Y-by-Z (3-D), grey
%                    values 0 to 255 (use int32(img); rescale other ranges).
%                    X = Y = 2^MAX_LEVEL pixels, Z = 2^(MAX_LEVEL -
%                    LIM_OCT_LEVEL) slices (1 for a 2-D image).
%   MAX_LEVEL        level of the whole image, 1 to 8 (edge 2 to 256 pixels).
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
%   Every parameter is a real numeric scalar of any class. All but REJECTION,
%   SIGMA and PSEUDO_FACTOR are whole numbers: fractions are truncated toward
%   zero (2.9 becomes 2, -0.5 becomes 0).
%
%   LABELS  int32, the size of IMAGE: the region of each pixel, 0 for the
%           largest region, 1 for the next, and so on by decreasing size.
%   FRAMES  int32, the size of IMAGE plus one dimension: the segmentation as
%           it progresses, one frame per index of the last dimension, in
%           recording order (X-by-Y-by-F or X-by-Y-by-Z-by-F).
%
%   Errors have the identifiers splitmerge:nargin, splitmerge:nargout,
%   splitmerge:imageClass, splitmerge:imageDims, splitmerge:notScalar,
%   splitmerge:badParameter (the message names the parameter, its value and
%   what is allowed) and splitmerge:outOfMemory. The warning
%   splitmerge:frameBudget says that frame recording stopped early because
%   the frames would exceed 2 GiB; LABELS are complete all the same.
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
%   mkoctfile --mex).
%
%   See also BUILD_SPLITMERGE.

error('splitmerge:notBuilt', ...
      'The splitmerge module is not built: run build_splitmerge in %s', ...
      fileparts(mfilename('fullpath')));
end
