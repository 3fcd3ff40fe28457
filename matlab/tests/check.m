% Fails the test with the message when the condition does not hold.
function check(condition, varargin)
if ~condition
  error('test:failed', varargin{:});
end
end
