% Calls f and checks that it raises the error identifier id; returns the error.
function err = expect_error(id, f)
try
  f();
catch err
  check(strcmp(err.identifier, id), 'expected %s, got %s (%s)', id, err.identifier, err.message);
  return;
end
error('test:failed', 'expected %s, the call succeeded', id);
end
