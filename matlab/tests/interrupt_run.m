function interrupt_run(seconds_limit)
%INTERRUPT_RUN A long 3-D call for test_octave.sh to stop with Ctrl-C.
%   Prints 'started', runs the module on a 128^3 volume with frames, and
%   prints 'interrupted after S s' when the call ends with
%   splitmerge:interrupted within SECONDS_LIMIT, 'finished' when it ran to
%   its end, or the other error.
[x, y, z] = ndgrid(0:127, 0:127, 0:127);
img = int32(mod(x * 7 + y * 13 + z * 5 + floor(x .* y / 3), 251));
p = {7, 0, 0, 1, 64, 1, 3, 40, 0.3, 5, 3, 2, 50, 1};
fprintf('started\n');
fflush(stdout);
start = tic;
try
  evalc('[labels, frames] = splitmerge(img, p{:});');
  fprintf('finished after %.1f s\n', toc(start));
catch err
  if strcmp(err.identifier, 'splitmerge:interrupted') && toc(start) < seconds_limit
    fprintf('interrupted after %.1f s\n', toc(start));
  else
    fprintf('%s: %s after %.1f s\n', err.identifier, err.message, toc(start));
  end
end
% The module works again after an interrupted call.
evalc('labels = splitmerge(int32(magic(4) * 10), 2, 2, 0, 0, 1, 0, 1, 10, 0.1, 5, 3, 2, 0, 1);');
fprintf('next call gives %d labels\n', numel(labels));
end
