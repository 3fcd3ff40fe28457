function v = splitmerge_version()
%SPLITMERGE_VERSION Version of the splitmerge module and its M-files.
%   V = SPLITMERGE_VERSION returns the version as text, such as '0.1.0': the
%   project's file VERSION, which BUILD_SPLITMERGE compiles the module from
%   (in a clone, the folder above this one; in a copied toolbox folder, a
%   file VERSION next to this one).
%
%   See also SPLITMERGE, SMSEGMENT, BUILD_SPLITMERGE.

here = fileparts(mfilename('fullpath'));
candidates = {fullfile(fileparts(here), 'VERSION'), fullfile(here, 'VERSION')};
for k = 1:numel(candidates)
  if exist(candidates{k}, 'file') == 2
    v = strtrim(fileread(candidates{k}));
    return;
  end
end
error('splitmerge:noVersion', 'no file VERSION next to %s or above it', here);
end
