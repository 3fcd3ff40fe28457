function interrupt_run()
%INTERRUPT_RUN A long 3-D call for test_octave.sh to stop with Ctrl-C.
%   Runs the module on a 128^3 volume with frames, its progress lines going
%   out as they come (the script sends Ctrl-C on the first one), and prints
%   'interrupted' when the call ends with splitmerge:interrupted, 'finished'
%   when it ran to its end, or the other error; then one more call.
[x, y, z] = ndgrid(0:127, 0:127, 0:127);
img = int32(mod(x * 7 + y * 13 + z * 5 + floor(x .* y / 3), 251));
p = {7, 0, 0, 1, 64, 1, 3, 40, 0.3, 5, 3, 2, 50, 1};
try
  [labels, frames] = splitmerge(img, p{:}); %#ok<ASGLU>
  fprintf('finished\n');
catch err
  if strcmp(err.identifier, 'splitmerge:interrupted')
    fprintf('interrupted\n');
  else
    fprintf('%s: %s\n', err.identifier, err.message);
  end
end
% The module works again after an interrupted call.
evalc('labels = splitmerge(int32(magic(4) * 10), 2, 2, 0, 0, 1, 0, 1, 10, 0.1, 5, 3, 2, 0, 1);');
fprintf('next call gives %d labels\n', numel(labels));
end
